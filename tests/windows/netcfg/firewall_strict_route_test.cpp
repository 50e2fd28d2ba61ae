// The filters as the system gets them, in order, and what is logged of it.

#include "windows/netcfg/firewall_expectations.h"
#include "windows/netcfg/firewall_fixture.h"

namespace ruvo {
namespace {

using namespace test;

using FirewallStrictRoute = FirewallTest;

TEST_F(FirewallStrictRoute, hasADynamicSessionAndASublayerOfItsOwn)
{
    FirewallManager manager;
    m_calls.clear(); // the key is made with the manager
    EXPECT_TRUE(manager.initialize());
    EXPECT_EQ(m_calls.lines, initializing);
    EXPECT_EQ(m_log.lines(), QStringList{"DEBUG Firewall manager initialized"});
}

TEST_F(FirewallStrictRoute, opensOneEngineHoweverOftenItIsInitialised)
{
    FirewallManager manager;
    EXPECT_TRUE(manager.initialize());
    m_calls.clear();
    m_log.clear();
    EXPECT_TRUE(manager.initialize());
    EXPECT_EQ(m_calls.lines, QStringList());
    EXPECT_EQ(m_log.lines(), QStringList());
    EXPECT_EQ(m_engine.openSessions, 1);
}

TEST_F(FirewallStrictRoute, hasAnotherSublayerWithEveryManager)
{
    for (int start = 0; start < 2; ++start)
        EXPECT_TRUE(FirewallManager().initialize());
    ASSERT_EQ(m_engine.subLayers.size(), 2u);
    EXPECT_FALSE(IsEqualGUID(m_engine.subLayers[0], m_engine.subLayers[1]));
}

TEST_F(FirewallStrictRoute, addsEveryFilterInItsOrderAndTheRuleLast)
{
    FirewallManager manager;
    ASSERT_TRUE(manager.initialize());
    m_calls.clear();
    EXPECT_TRUE(manager.applyStrictRoute(tunnelIndex, tunnelDns, true));
    EXPECT_EQ(m_calls.lines, applying);
    EXPECT_EQ(m_policy.ruleNames, QStringList{listenerRuleName});
    EXPECT_EQ(m_engine.filters.size(), 17u);
    EXPECT_EQ(m_engine.memory(), 0u);
}

TEST_F(FirewallStrictRoute, saysWhatItHasAdded)
{
    FirewallManager manager;
    ASSERT_TRUE(manager.initialize());
    m_log.clear();
    EXPECT_TRUE(manager.applyStrictRoute(tunnelIndex, tunnelDns, true));
    EXPECT_EQ(m_log.lines(), (QStringList{"DEBUG Applying strict route - interface: 7",
                                          "DEBUG Added process permit filters for ruvod.exe (weight 13)",
                                          "DEBUG Added process permit filters for xray.exe (weight 13)",
                                          "DEBUG Added process permit filters for Ruvo.exe (weight 13)",
                                          "DEBUG Added IPv6 block filter (weight 12)",
                                          "DEBUG Added interface permit filters (weight 11) - interface: 7",
                                          "DEBUG Strict route firewall rules applied successfully",
                                          "CRITICAL [WFP] Created 17 filters",
                                          "CRITICAL [FILTER-CHECK] 🔍 Verifying 17 filters still exist...",
                                          "CRITICAL [FILTER-CHECK] 17 filters exist, 0 are MISSING",
                                          "CRITICAL [FILTER-CHECK] ✅ All filters verified - DNS protection active",
                                          "DEBUG [WinFW] ✓ Added Windows Firewall inbound allow rule for TCP"}));
}

TEST_F(FirewallStrictRoute, leavesIpv6AloneUnlessItIsToBeBlocked)
{
    FirewallManager manager;
    ASSERT_TRUE(manager.initialize());
    m_calls.clear();
    EXPECT_TRUE(manager.applyStrictRoute(tunnelIndex, tunnelDns, false));
    EXPECT_EQ(m_calls.lines, permittingPrograms + permittingTunnel + blockingDns
                                 + forEachFilter("FwpmFilterGetById0", 16) + addingRule);
    EXPECT_TRUE(m_log.contains("CRITICAL [WFP] Created 16 filters"));
    EXPECT_FALSE(m_log.contains("IPv6 block"));
}

TEST_F(FirewallStrictRoute, takesEachInterfaceByItsWholeIndex)
{
    FirewallManager manager;
    ASSERT_TRUE(manager.initialize());
    EXPECT_TRUE(manager.applyStrictRoute(0xFFFFFFFE, tunnelDns, false));
    EXPECT_EQ(m_calls.linesWith("permit interface uint32 4294967294").size(), 2);
}

TEST_F(FirewallStrictRoute, isRefusedBeforeTheManagerIsInitialised)
{
    FirewallManager manager;
    m_calls.clear();
    EXPECT_FALSE(manager.applyStrictRoute(tunnelIndex, tunnelDns, true));
    EXPECT_EQ(m_calls.lines, QStringList());
    EXPECT_EQ(m_log.lines(), QStringList{"CRITICAL Firewall manager not initialized"});
}

} // namespace
} // namespace ruvo
