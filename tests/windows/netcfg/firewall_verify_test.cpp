// Whether the filters are still there.

#include "windows/netcfg/firewall_expectations.h"
#include "windows/netcfg/firewall_fixture.h"

namespace ruvo {
namespace {

using namespace test;

class FirewallVerify : public FirewallTest
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_manager.initialize());
        ASSERT_TRUE(m_manager.applyStrictRoute(tunnelIndex, tunnelDns, true));
        m_calls.clear();
        m_log.clear();
    }

    FirewallManager m_manager;
};

TEST_F(FirewallVerify, looksForEveryFilterAndKeepsNone)
{
    EXPECT_TRUE(m_manager.verifyFilters());
    EXPECT_EQ(m_calls.lines, forEachFilter("FwpmFilterGetById0", 17));
    EXPECT_EQ(m_log.lines(), (QStringList{"CRITICAL [FILTER-CHECK] 🔍 Verifying 17 filters still exist...",
                                          "CRITICAL [FILTER-CHECK] 17 filters exist, 0 are MISSING",
                                          "CRITICAL [FILTER-CHECK] ✅ All filters verified - DNS protection active"}));
    EXPECT_EQ(m_engine.memory(), 0u);
}

TEST_F(FirewallVerify, namesEachFilterThatIsGone)
{
    std::erase(m_engine.filters, 1003u);
    std::erase(m_engine.filters, 1016u);
    EXPECT_FALSE(m_manager.verifyFilters());
    EXPECT_EQ(m_calls.lines, forEachFilter("FwpmFilterGetById0", 17));
    EXPECT_EQ(m_log.lines(),
              (QStringList{"CRITICAL [FILTER-CHECK] 🔍 Verifying 17 filters still exist...",
                           "CRITICAL [FILTER-CHECK] ❌ Filter ID 1003 is MISSING! Error: 2150760451", // 0x80320003
                           "CRITICAL [FILTER-CHECK] ❌ Filter ID 1016 is MISSING! Error: 2150760451",
                           "CRITICAL [FILTER-CHECK] 15 filters exist, 2 are MISSING",
                           "CRITICAL [FILTER-CHECK] 🔥🔥🔥 FILTERS DISAPPEARED WITHOUT CLEANUP! 🔥🔥🔥"}));
    EXPECT_EQ(m_engine.memory(), 0u);
}

TEST_F(FirewallVerify, takesALookUpThatFindsNothingForAMissingFilter)
{
    m_engine.idWithoutFilter = 1002;
    EXPECT_FALSE(m_manager.verifyFilters());
    EXPECT_EQ(m_log.lines().at(1), "CRITICAL [FILTER-CHECK] ❌ Filter ID 1002 is MISSING! Error: 0");
    EXPECT_EQ(m_log.lines().at(2), "CRITICAL [FILTER-CHECK] 16 filters exist, 1 are MISSING");
}

TEST_F(FirewallVerify, missesAllOfThemOnceSomebodyElseHasClosedTheEngine)
{
    m_calls.fail("FwpmFilterGetById0", ERROR_INVALID_HANDLE);
    EXPECT_FALSE(m_manager.verifyFilters());
    EXPECT_EQ(m_log.linesWith("is MISSING! Error: 6").size(), 17);
    EXPECT_TRUE(m_log.contains("CRITICAL [FILTER-CHECK] 0 filters exist, 17 are MISSING"));
}

TEST_F(FirewallVerify, findsThemAgainOnceTheEngineAnswers)
{
    m_calls.fail("FwpmFilterGetById0 1005", ERROR_INVALID_HANDLE);
    EXPECT_FALSE(m_manager.verifyFilters());
    m_calls.clear();
    EXPECT_TRUE(m_manager.verifyFilters());
}

TEST_F(FirewallVerify, hasNothingToLookForWithoutAnEngine)
{
    const QStringList refusal = {"CRITICAL [FILTER-CHECK] ❌ Not initialized or no engine handle!"};
    m_manager.cleanup();
    m_calls.clear();
    m_log.clear();
    EXPECT_FALSE(m_manager.verifyFilters());
    EXPECT_EQ(m_log.lines(), refusal);
    m_log.clear();
    FirewallManager fresh;
    EXPECT_FALSE(fresh.verifyFilters());
    EXPECT_EQ(m_log.lines(), refusal);
    EXPECT_EQ(m_calls.lines, QStringList{"CoCreateGuid"});
}

TEST_F(FirewallVerify, isContentWhereNoFilterWasAdded)
{
    FirewallManager fresh;
    ASSERT_TRUE(fresh.initialize());
    m_log.clear();
    EXPECT_TRUE(fresh.verifyFilters());
    EXPECT_EQ(m_log.lines().at(1), "CRITICAL [FILTER-CHECK] 0 filters exist, 0 are MISSING");
}

} // namespace
} // namespace ruvo
