#include "filtering/filtering_test.h"

#include <gmock/gmock.h>

#include <functional>

namespace ruvo::test {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using winehost::JsonValue;

namespace {

class FiltersTest : public FilteringTest
{
protected:
    void SetUp() override
    {
        FilteringTest::SetUp();
        m_engine = open();
        ASSERT_EQ(addSublayer(m_engine), DWORD{NO_ERROR});
    }

    DWORD add(const FWPM_FILTER0 &filter, UINT64 *id = nullptr)
    {
        return FwpmFilterAdd0(m_engine, &filter, nullptr, id);
    }

    DWORD addWith(FWPM_FILTER_CONDITION0 condition, std::string_view layer = "connect-v4")
    {
        FWPM_FILTER0 filter = filterAt(layer);
        filter.numFilterConditions = 1;
        filter.filterCondition = &condition;
        return add(filter);
    }

    DWORD addChanged(const std::function<void(FWPM_FILTER0 &)> &change)
    {
        FWPM_FILTER0 filter = filterAt("connect-v4");
        change(filter);
        return add(filter);
    }

    HANDLE m_engine = nullptr;
};

} // namespace

TEST_F(FiltersTest, aSublayerIsThereOnceAndAsLongAsItHasFilters)
{
    const auto sublayers = engineHas("sublayers");
    ASSERT_EQ(sublayers.size(), 1U);
    EXPECT_EQ(sublayers[0]["key"].text, "{0BADCAFE-1234-5678-0102-030405060708}");
    EXPECT_EQ(sublayers[0]["name"].text, "sublayer");
    EXPECT_EQ(sublayers[0]["description"].text, "for filters");
    EXPECT_EQ(sublayers[0]["weight"].number, 0xFFFF);
    EXPECT_THAT(journal("FwpmSubLayerAdd0"),
                ElementsAre(HasSubstr(R"("key":"{0BADCAFE-1234-5678-0102-030405060708}","name":"sublayer",)"
                                      R"("description":"for filters","flags":0,"provider":false,"weight":65535,)")));

    EXPECT_EQ(addSublayer(m_engine), code(FWP_E_ALREADY_EXISTS));
    UINT64 id = 0;
    ASSERT_EQ(add(filterAt("connect-v4"), &id), DWORD{NO_ERROR});
    EXPECT_EQ(FwpmSubLayerDeleteByKey0(m_engine, &sublayerKey), code(FWP_E_IN_USE));
    EXPECT_EQ(FwpmFilterDeleteById0(m_engine, id), DWORD{NO_ERROR});
    EXPECT_EQ(FwpmSubLayerDeleteByKey0(m_engine, &sublayerKey), DWORD{NO_ERROR});
    EXPECT_EQ(FwpmSubLayerDeleteByKey0(m_engine, &sublayerKey), code(FWP_E_SUBLAYER_NOT_FOUND));
    EXPECT_EQ(add(filterAt("connect-v4")), code(FWP_E_SUBLAYER_NOT_FOUND));
}

TEST_F(FiltersTest, aSublayerThatCannotBeIsRefused)
{
    const auto added = [&](const std::function<void(FWPM_SUBLAYER0 &)> &change) {
        FWPM_SUBLAYER0 sublayer{};
        sublayer.subLayerKey = {7, 7, 7, {}};
        sublayer.displayData.name = const_cast<wchar_t *>(L"another");
        change(sublayer);
        return FwpmSubLayerAdd0(m_engine, &sublayer, nullptr);
    };
    GUID provider{};
    EXPECT_EQ(added([](auto &sublayer) { sublayer.displayData.name = nullptr; }), code(FWP_E_NULL_DISPLAY_NAME));
    EXPECT_EQ(added([](auto &sublayer) { sublayer.flags = 1; }), code(FWP_E_LIFETIME_MISMATCH));
    EXPECT_EQ(added([](auto &sublayer) { sublayer.flags = 2; }), code(FWP_E_INVALID_FLAGS));
    EXPECT_EQ(added([&](auto &sublayer) { sublayer.providerKey = &provider; }), code(FWP_E_PROVIDER_NOT_FOUND));
    EXPECT_EQ(FwpmSubLayerAdd0(m_engine, nullptr, nullptr), code(FWP_E_NULL_POINTER));
    EXPECT_EQ(FwpmSubLayerAdd0(nullptr, nullptr, nullptr), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(engineHas("sublayers").size(), 1U);
}

TEST_F(FiltersTest, theEngineGetsThemWordForWord)
{
    std::wstring path = L"\\device\\harddiskvolume26\\some where\\\u00fcber.exe";
    FWP_BYTE_BLOB blob{static_cast<UINT32>((path.size() + 1) * sizeof(wchar_t)),
                       reinterpret_cast<UINT8 *>(path.data())};
    FWPM_FILTER_CONDITION0 program = condition("app-id", FWP_BYTE_BLOB_TYPE);
    program.conditionValue.byteBlob = &blob;
    FWPM_FILTER_CONDITION0 index = condition("interface-index", FWP_UINT32);
    index.conditionValue.uint32 = 70000;
    FWPM_FILTER_CONDITION0 both[] = {program, remotePort(53)};
    FWPM_FILTER0 permit = filterAt("accept-v6");
    permit.weight.uint8 = 13;
    permit.action.type = FWP_ACTION_PERMIT;
    permit.numFilterConditions = 2;
    permit.filterCondition = both;
    UINT64 first = 0;
    UINT64 second = 0;
    ASSERT_EQ(add(permit, &first), DWORD{NO_ERROR});
    FWPM_FILTER0 block = filterAt("connect-v4");
    block.displayData.description = nullptr;
    block.numFilterConditions = 1;
    block.filterCondition = &index;
    ASSERT_EQ(add(block, &second), DWORD{NO_ERROR});
    EXPECT_GT(second, first);

    const auto filters = engineHas("filters");
    ASSERT_EQ(filters.size(), 2U);
    EXPECT_EQ(filters[0]["layer"].text, "accept-v6");
    EXPECT_EQ(filters[0]["sublayer"].text, "{0BADCAFE-1234-5678-0102-030405060708}");
    EXPECT_EQ(filters[0]["name"].text, "filter");
    EXPECT_EQ(filters[0]["description"].text, "why it is there");
    EXPECT_EQ(filters[0]["weight"].number, 13);
    EXPECT_EQ(filters[0]["action"].text, "permit");
    const std::vector<JsonValue> &conditions = filters[0]["conditions"].elements;
    ASSERT_EQ(conditions.size(), 2U);
    EXPECT_EQ(conditions[0]["field"].text, "app-id");
    EXPECT_EQ(conditions[0]["value"].text, "\\device\\harddiskvolume26\\some where\\\u00fcber.exe");
    EXPECT_EQ(conditions[1]["field"].text, "remote-port");
    EXPECT_EQ(conditions[1]["value"].number, 53);
    EXPECT_EQ(filters[1]["action"].text, "block");
    EXPECT_EQ(filters[1]["conditions"].elements.at(0)["value"].number, 70000);

    const std::string sublayer = R"("sublayer":"{0BADCAFE-1234-5678-0102-030405060708}","flags":0,)";
    EXPECT_THAT(
        journal("FwpmFilterAdd0"),
        ElementsAre(HasSubstr(R"("name":"filter","description":"why it is there","layer":"ALE_AUTH_RECV_ACCEPT_V6",)"
                              + sublayer
                              + R"("weight":13,"weight-type":"UINT8","action":"PERMIT","conditions":[)"
                                R"("ALE_APP_ID EQUAL BYTE_BLOB \\device\\harddiskvolume26\\some where\\)"
                                "\u00fcber.exe"
                                R"(","IP_REMOTE_PORT EQUAL UINT16 53"],"security":false,"id":)"
                              + std::to_string(first) + R"(,"result":true})"),
                    HasSubstr(R"("description":null,"layer":"ALE_AUTH_CONNECT_V4",)" + sublayer
                              + R"("weight":10,"weight-type":"UINT8","action":"BLOCK",)"
                                R"("conditions":["INTERFACE_INDEX EQUAL UINT32 70000"],)")));
}

TEST_F(FiltersTest, oneIsFoundAgainByItsIdUntilItIsDeleted)
{
    const FWPM_FILTER_CONDITION0 port = remotePort(53);
    FWPM_FILTER0 filter = filterAt("connect-v6");
    filter.numFilterConditions = 1;
    filter.filterCondition = const_cast<FWPM_FILTER_CONDITION0 *>(&port);
    UINT64 id = 0;
    ASSERT_EQ(add(filter, &id), DWORD{NO_ERROR});

    FWPM_FILTER0 *found = nullptr;
    ASSERT_EQ(FwpmFilterGetById0(m_engine, id, &found), DWORD{NO_ERROR});
    EXPECT_STREQ(found->displayData.name, L"filter");
    EXPECT_STREQ(found->displayData.description, L"why it is there");
    EXPECT_TRUE(IsEqualGUID(found->layerKey, filter.layerKey));
    EXPECT_TRUE(IsEqualGUID(found->subLayerKey, sublayerKey));
    EXPECT_EQ(found->weight.uint8, 10);
    EXPECT_EQ(found->action.type, UINT32{FWP_ACTION_BLOCK});
    EXPECT_EQ(found->filterId, id);
    ASSERT_EQ(found->numFilterConditions, 1U);
    EXPECT_TRUE(IsEqualGUID(found->filterCondition[0].fieldKey, port.fieldKey));
    EXPECT_EQ(found->filterCondition[0].conditionValue.uint16, 53);
    FwpmFreeMemory0(reinterpret_cast<void **>(&found));
    EXPECT_EQ(found, nullptr);

    EXPECT_EQ(FwpmFilterDeleteById0(m_engine, id), DWORD{NO_ERROR});
    EXPECT_EQ(FwpmFilterDeleteById0(m_engine, id), code(FWP_E_FILTER_NOT_FOUND));
    EXPECT_EQ(FwpmFilterGetById0(m_engine, id, &found), code(FWP_E_FILTER_NOT_FOUND));
    EXPECT_EQ(found, nullptr);
}

TEST_F(FiltersTest, whatWindowsWouldRefuseIsRefused)
{
    GUID unknown{1, 1, 1, {}};
    EXPECT_EQ(addChanged([](auto &filter) { filter.displayData.name = nullptr; }), code(FWP_E_NULL_DISPLAY_NAME));
    EXPECT_EQ(addChanged([&](auto &filter) { filter.layerKey = unknown; }), code(FWP_E_LAYER_NOT_FOUND));
    EXPECT_EQ(addChanged([&](auto &filter) { filter.subLayerKey = unknown; }), code(FWP_E_SUBLAYER_NOT_FOUND));
    EXPECT_EQ(addChanged([&](auto &filter) { filter.providerKey = &unknown; }), code(FWP_E_PROVIDER_NOT_FOUND));
    EXPECT_EQ(addChanged([](auto &filter) { filter.action.type = 0; }), code(FWP_E_INVALID_ACTION_TYPE));
    EXPECT_EQ(addChanged([](auto &filter) { filter.weight.uint8 = 16; }), code(FWP_E_INVALID_WEIGHT));
    EXPECT_EQ(addChanged([](auto &filter) { filter.weight.type = FWP_UINT32; }), code(FWP_E_INVALID_WEIGHT));
    EXPECT_EQ(addChanged([](auto &filter) { filter.flags = 1; }), code(FWP_E_LIFETIME_MISMATCH));
    EXPECT_EQ(addChanged([](auto &filter) { filter.flags = 0x1000; }), code(FWP_E_INVALID_FLAGS));
    EXPECT_EQ(addChanged([](auto &filter) { filter.numFilterConditions = 1; }), code(FWP_E_NULL_POINTER));
    EXPECT_EQ(FwpmFilterAdd0(m_engine, nullptr, nullptr, nullptr), code(FWP_E_NULL_POINTER));
    EXPECT_EQ(FwpmFilterAdd0(nullptr, nullptr, nullptr, nullptr), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_TRUE(engineHas("filters").empty());
}

TEST_F(FiltersTest, conditionsHaveToFitTheirLayerAndField)
{
    FWPM_FILTER_CONDITION0 unknown = remotePort(53);
    unknown.fieldKey.Data1 ^= 1;
    EXPECT_EQ(addWith(unknown), code(FWP_E_CONDITION_NOT_FOUND));
    FWPM_FILTER_CONDITION0 wide = remotePort(53);
    wide.conditionValue.type = FWP_UINT32;
    EXPECT_EQ(addWith(wide), code(FWP_E_TYPE_MISMATCH));

    FWPM_FILTER_CONDITION0 program = condition("app-id", FWP_BYTE_BLOB_TYPE);
    EXPECT_EQ(addWith(program), code(FWP_E_NULL_POINTER));
    UINT8 byte = 0;
    FWP_BYTE_BLOB empty{0, &byte};
    program.conditionValue.byteBlob = &empty;
    EXPECT_EQ(addWith(program), code(FWP_E_ZERO_LENGTH_ARRAY));
    program.matchType = FWP_MATCH_GREATER;
    EXPECT_EQ(addWith(program), code(FWP_E_MATCH_TYPE_MISMATCH));

    // FWPM_LAYER_OUTBOUND_TRANSPORT_V4: packets of no program
    program.matchType = FWP_MATCH_EQUAL;
    FWPM_FILTER0 filter = filterAt("connect-v4");
    filter.layerKey = {0x09e61aea, 0xd214, 0x46e2, {0x9b, 0x21, 0xb2, 0x6b, 0x0b, 0x2f, 0x28, 0xc8}};
    filter.numFilterConditions = 1;
    filter.filterCondition = &program;
    EXPECT_EQ(add(filter), code(FWP_E_CONDITION_NOT_FOUND));
    EXPECT_TRUE(engineHas("filters").empty());
}

} // namespace ruvo::test
