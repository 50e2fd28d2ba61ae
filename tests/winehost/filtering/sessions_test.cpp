#include "filtering/filtering_test.h"
#include "filtering/other_namespace.h"

#include <gmock/gmock.h>

namespace ruvo::test {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

DWORD openWith(const wchar_t *server, UINT32 authentication, UINT32 flags)
{
    FWPM_SESSION0 session{};
    session.flags = flags;
    HANDLE engine = nullptr;
    const DWORD error = FwpmEngineOpen0(server, authentication, nullptr, &session, &engine);
    EXPECT_EQ(engine, nullptr);
    return error;
}

} // namespace

TEST_F(FilteringTest, aSessionIsTheEnginesUntilItsHandleIsClosed)
{
    const HANDLE engine = open(L"my session");
    const auto sessions = engineHas("sessions");
    ASSERT_EQ(sessions.size(), 1U);
    EXPECT_EQ(sessions[0]["name"].text, "my session");
    EXPECT_EQ(sessions[0]["description"].text, "of a test");
    EXPECT_TRUE(sessions[0]["dynamic"].flag);
    EXPECT_EQ(FwpmEngineClose0(engine), DWORD{NO_ERROR});
    EXPECT_TRUE(engineHas("sessions").empty());
    EXPECT_EQ(FwpmEngineClose0(engine), DWORD{ERROR_INVALID_HANDLE});

    EXPECT_THAT(journal("FwpmEngineOpen0"),
                ElementsAre(HasSubstr(R"("server":null,"authentication":"default","identity":false,)"
                                      R"("name":"my session","description":"of a test","flags":1,"engine":)")));
    EXPECT_THAT(journal("FwpmEngineClose0"),
                ElementsAre(HasSubstr(R"("result":true)"), HasSubstr(R"("result":false,"error":6)")));
}

TEST_F(FilteringTest, whatCannotBeOpenedIsRefused)
{
    EXPECT_EQ(openWith(L"another machine", RPC_C_AUTHN_DEFAULT, 0), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(openWith(nullptr, RPC_C_AUTHN_NONE, 0), DWORD{RPC_S_UNKNOWN_AUTHN_SERVICE});
    EXPECT_EQ(openWith(nullptr, RPC_C_AUTHN_WINNT, 4), code(FWP_E_INVALID_FLAGS));
    EXPECT_EQ(FwpmEngineOpen0(nullptr, RPC_C_AUTHN_DEFAULT, nullptr, nullptr, nullptr), code(FWP_E_NULL_POINTER));
    EXPECT_TRUE(engineHas("sessions").empty());
}

TEST_F(FilteringTest, withADynamicSessionGoesWhatItHasAdded)
{
    const GUID otherKey{1, 2, 3, {}};
    const HANDLE first = open(L"first");
    const HANDLE second = open(L"second");
    EXPECT_NE(first, second);
    ASSERT_EQ(addSublayer(first), DWORD{NO_ERROR});
    ASSERT_EQ(addSublayer(second, otherKey), DWORD{NO_ERROR});
    FWPM_FILTER0 filter = filterAt("connect-v4");
    UINT64 id = 0;
    ASSERT_EQ(FwpmFilterAdd0(first, &filter, nullptr, &id), DWORD{NO_ERROR});
    filter.subLayerKey = otherKey;
    ASSERT_EQ(FwpmFilterAdd0(second, &filter, nullptr, &id), DWORD{NO_ERROR});

    EXPECT_EQ(FwpmEngineClose0(first), DWORD{NO_ERROR});
    EXPECT_EQ(engineHas("sublayers").size(), 1U);
    const auto left = engineHas("filters");
    ASSERT_EQ(left.size(), 1U);
    EXPECT_EQ(left[0]["id"].number, static_cast<std::int64_t>(id));
    FWPM_FILTER0 *found = nullptr;
    EXPECT_EQ(FwpmFilterGetById0(first, id, &found), DWORD{ERROR_INVALID_HANDLE});
    EXPECT_EQ(found, nullptr);
}

TEST_F(FilteringTest, whatAnOrdinarySessionHasAddedOutlivesIt)
{
    const HANDLE engine = open(L"not dynamic", 0);
    ASSERT_EQ(addSublayer(engine), DWORD{NO_ERROR});
    EXPECT_EQ(FwpmEngineClose0(engine), DWORD{NO_ERROR});
    EXPECT_EQ(engineHas("sublayers").size(), 1U);
    EXPECT_EQ(FwpmSubLayerDeleteByKey0(open(), &sublayerKey), DWORD{NO_ERROR});
}

TEST_F(FilteringTest, everyCallFailsAsItIsPlannedAndDoesNothing)
{
    const HANDLE engine = open();
    writeBenchFile("faults.txt", "FwpmEngineOpen0 1 5\nFwpmSubLayerAdd0 1 2150760457\nFwpmFilterAdd0 2 8\n"
                                 "FwpmFilterGetById0 1 2150760451\nFwpmFilterDeleteById0 1 5\n"
                                 "FwpmSubLayerDeleteByKey0 1 5\nFwpmEngineClose0 1 5\n"
                                 "FwpmGetAppIdFromFileName0 1 3\n");
    EXPECT_EQ(openWith(nullptr, RPC_C_AUTHN_DEFAULT, 1), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(addSublayer(engine), code(FWP_E_ALREADY_EXISTS));
    EXPECT_TRUE(engineHas("sublayers").empty());
    EXPECT_EQ(addSublayer(engine), DWORD{NO_ERROR});
    const FWPM_FILTER0 filter = filterAt("connect-v4");
    UINT64 id = 0;
    EXPECT_EQ(FwpmFilterAdd0(engine, &filter, nullptr, &id), DWORD{NO_ERROR});
    EXPECT_EQ(FwpmFilterAdd0(engine, &filter, nullptr, nullptr), DWORD{ERROR_NOT_ENOUGH_MEMORY});
    EXPECT_EQ(engineHas("filters").size(), 1U);
    FWPM_FILTER0 *found = nullptr;
    EXPECT_EQ(FwpmFilterGetById0(engine, id, &found), code(FWP_E_FILTER_NOT_FOUND));
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(FwpmFilterDeleteById0(engine, id), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(engineHas("filters").size(), 1U);
    EXPECT_EQ(FwpmFilterDeleteById0(engine, id), DWORD{NO_ERROR});
    EXPECT_EQ(FwpmSubLayerDeleteByKey0(engine, &sublayerKey), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(FwpmSubLayerDeleteByKey0(engine, &sublayerKey), DWORD{NO_ERROR});
    EXPECT_EQ(FwpmEngineClose0(engine), DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(engineHas("sessions").size(), 1U);
    FWP_BYTE_BLOB *appId = nullptr;
    EXPECT_EQ(FwpmGetAppIdFromFileName0(L"Z:\\", &appId), DWORD{ERROR_PATH_NOT_FOUND});
    EXPECT_EQ(journal("\"planned\":true").size(), 8U);
}

TEST_F(FilteringTest, withoutAnEngineNothingOpens)
{
    inOtherNamespace([] { EXPECT_EQ(openWith(nullptr, RPC_C_AUTHN_DEFAULT, 1), DWORD{EPT_S_NOT_REGISTERED}); });
}

TEST_F(FilteringTest, everyCallFailsOnceTheEngineIsGone)
{
    inOtherNamespace([this] {
        HANDLE engine = nullptr;
        {
            const BriefEngine brief(1);
            engine = open();
        }
        EXPECT_EQ(addSublayer(engine), DWORD{RPC_S_CALL_FAILED});
        const FWPM_FILTER0 filter = filterAt("connect-v4");
        EXPECT_EQ(FwpmFilterAdd0(engine, &filter, nullptr, nullptr), DWORD{RPC_S_CALL_FAILED});
        FWPM_FILTER0 *found = nullptr;
        EXPECT_EQ(FwpmFilterGetById0(engine, 1001, &found), DWORD{RPC_S_CALL_FAILED});
        EXPECT_EQ(found, nullptr);
        EXPECT_EQ(FwpmFilterDeleteById0(engine, 1001), DWORD{RPC_S_CALL_FAILED});
        EXPECT_EQ(FwpmSubLayerDeleteByKey0(engine, &sublayerKey), DWORD{RPC_S_CALL_FAILED});
        EXPECT_EQ(FwpmEngineClose0(engine), DWORD{RPC_S_CALL_FAILED});
    });
}

} // namespace ruvo::test
