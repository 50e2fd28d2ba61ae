#include "filtering/filtering_test.h"

#include "filtering/engine_connection.h"

namespace ruvo::test {

using winehost::findField;
using winehost::findLayer;

void FilteringTest::SetUp()
{
    clearBenchFolder();
    WSADATA data;
    ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
}

void FilteringTest::TearDown()
{
    clearBenchFolder();
    for (const HANDLE engine : m_opened)
        FwpmEngineClose0(engine);
    EXPECT_EQ(engineHas("sessions").size(), 0U);
    EXPECT_EQ(engineHas("sublayers").size(), 0U);
    EXPECT_EQ(engineHas("filters").size(), 0U);
    EXPECT_TRUE(journal("misuse").empty());
    WSACleanup();
}

HANDLE FilteringTest::open(const wchar_t *name, UINT32 flags)
{
    FWPM_SESSION0 session{};
    session.displayData.name = const_cast<wchar_t *>(name);
    session.displayData.description = const_cast<wchar_t *>(L"of a test");
    session.flags = flags;
    HANDLE engine = nullptr;
    EXPECT_EQ(FwpmEngineOpen0(nullptr, RPC_C_AUTHN_DEFAULT, nullptr, &session, &engine), DWORD{NO_ERROR});
    m_opened.push_back(engine);
    return engine;
}

DWORD FilteringTest::addSublayer(HANDLE engine, const GUID &key)
{
    FWPM_SUBLAYER0 sublayer{};
    sublayer.subLayerKey = key;
    sublayer.displayData.name = const_cast<wchar_t *>(L"sublayer");
    sublayer.displayData.description = const_cast<wchar_t *>(L"for filters");
    sublayer.weight = 0xFFFF;
    return FwpmSubLayerAdd0(engine, &sublayer, nullptr);
}

FWPM_FILTER0 FilteringTest::filterAt(std::string_view layer)
{
    FWPM_FILTER0 filter{};
    filter.displayData.name = const_cast<wchar_t *>(L"filter");
    filter.displayData.description = const_cast<wchar_t *>(L"why it is there");
    filter.layerKey = findLayer(layer)->key;
    filter.subLayerKey = sublayerKey;
    filter.weight.type = FWP_UINT8;
    filter.weight.uint8 = 10;
    filter.action.type = FWP_ACTION_BLOCK;
    return filter;
}

FWPM_FILTER_CONDITION0 FilteringTest::condition(std::string_view field, FWP_DATA_TYPE type)
{
    FWPM_FILTER_CONDITION0 condition{};
    condition.fieldKey = findField(field)->key;
    condition.matchType = FWP_MATCH_EQUAL;
    condition.conditionValue.type = type;
    return condition;
}

FWPM_FILTER_CONDITION0 FilteringTest::remotePort(UINT16 port)
{
    FWPM_FILTER_CONDITION0 made = condition("remote-port", FWP_UINT16);
    made.conditionValue.uint16 = port;
    return made;
}

std::vector<winehost::JsonValue> FilteringTest::engineHas(std::string_view what)
{
    winehost::EngineConnection connection;
    if (!connection.connect()) {
        ADD_FAILURE() << "no engine";
        return {};
    }
    winehost::JsonLine question;
    question.add("call", "list");
    const auto answer = connection.ask(question);
    return answer ? (*answer)[what].elements : std::vector<winehost::JsonValue>();
}

} // namespace ruvo::test
