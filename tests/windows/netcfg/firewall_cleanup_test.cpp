// What is taken away, in which order, and that nothing stops it.

#include "windows/netcfg/firewall_expectations.h"
#include "windows/netcfg/firewall_fixture.h"

#include <optional>

namespace ruvo {
namespace {

using namespace test;

const QStringList closingEngine = {"FwpmSubLayerDeleteByKey0 its sublayer", "FwpmEngineClose0"};
const QStringList cleaningUp = removingRule + forEachFilter("FwpmFilterDeleteById0", 17) + closingEngine;

class FirewallCleanup : public FirewallTest
{
protected:
    void SetUp() override
    {
        m_manager.emplace();
        ASSERT_TRUE(m_manager->initialize());
        ASSERT_TRUE(m_manager->applyStrictRoute(tunnelIndex, tunnelDns, true));
        m_calls.clear();
        m_log.clear();
    }

    std::optional<FirewallManager> m_manager;
};

TEST_F(FirewallCleanup, takesAwayTheRuleTheFiltersTheSublayerAndTheEngine)
{
    m_manager->cleanup();
    EXPECT_EQ(m_calls.lines, cleaningUp);
    EXPECT_EQ(m_log.lines(), QStringList{"DEBUG [WinFW] ✓ Removed Windows Firewall rule"});
    EXPECT_EQ(m_engine.filters.size(), 0u);
    EXPECT_EQ(m_policy.ruleNames, QStringList());
    EXPECT_EQ(m_engine.openSessions, 0);
}

TEST_F(FirewallCleanup, happensOnce)
{
    m_manager->cleanup();
    m_calls.clear();
    m_manager->cleanup();
    m_manager.reset();
    EXPECT_EQ(m_calls.lines, QStringList());
}

TEST_F(FirewallCleanup, comesWithTheEndOfTheManager)
{
    m_manager.reset();
    EXPECT_EQ(m_calls.lines, cleaningUp);
}

TEST_F(FirewallCleanup, goesOnWhateverFails)
{
    m_manager.reset();
    for (const QString &line : cleaningUp) {
        if (line == "CoUninitialize") // cannot fail
            continue;
        SCOPED_TRACE(line.toStdString());
        m_engine.filters.clear();
        m_policy.ruleNames.clear();
        FirewallManager manager;
        ASSERT_TRUE(manager.initialize());
        ASSERT_TRUE(manager.applyStrictRoute(tunnelIndex, tunnelDns, true));
        m_calls.clear();
        m_calls.fail(line, static_cast<std::uint32_t>(E_UNEXPECTED));
        manager.cleanup();
        EXPECT_EQ(m_calls.failed(), line);
        QStringList withoutRule = m_calls.lines;
        withoutRule.removeIf([](const QString &made) { return !made.startsWith("Fwpm"); });
        EXPECT_EQ(withoutRule, forEachFilter("FwpmFilterDeleteById0", 17) + closingEngine);
        EXPECT_EQ(m_calls.lines.last(), "FwpmEngineClose0");
        EXPECT_EQ(m_engine.openSessions, 0);
        EXPECT_EQ(m_policy.comUses, 0);
    }
}

TEST_F(FirewallCleanup, leavesAManagerThatWasNeverInitialisedAlone)
{
    FirewallManager fresh;
    m_calls.clear();
    fresh.cleanup();
    EXPECT_EQ(m_calls.lines, QStringList());
}

TEST_F(FirewallCleanup, looksForNoRuleWhereNoneWasAdded)
{
    FirewallManager fresh;
    ASSERT_TRUE(fresh.initialize());
    m_calls.clear();
    m_log.clear();
    fresh.cleanup();
    EXPECT_EQ(m_calls.lines, (QStringList{"FwpmSubLayerDeleteByKey0 its sublayer", "FwpmEngineClose0"}));
    EXPECT_EQ(m_log.lines(), QStringList());
}

TEST_F(FirewallCleanup, canBeFollowedByAnotherStart)
{
    m_manager->cleanup();
    m_calls.clear();
    EXPECT_TRUE(m_manager->initialize());
    EXPECT_TRUE(m_manager->applyStrictRoute(tunnelIndex, tunnelDns, true));
    EXPECT_EQ(m_calls.linesWith("FwpmFilterAdd0").size(), 17);
    m_calls.clear();
    EXPECT_TRUE(m_manager->verifyFilters());
    EXPECT_EQ(m_calls.linesWith("FwpmFilterGetById0").size(), 17) << "those of the first start are forgotten";
}

} // namespace
} // namespace ruvo
