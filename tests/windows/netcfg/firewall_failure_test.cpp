// Every call failing once: what is logged, what becomes of the result, and that all the rest is still done.

#include "windows/netcfg/firewall_expectations.h"
#include "windows/netcfg/firewall_fixture.h"

#include <functional>

namespace ruvo {
namespace {

using namespace test;

constexpr auto someError = static_cast<std::uint32_t>(E_UNEXPECTED);
const QString code = "2147549183";     // as Windows' error
const QString comCode = "-2147418113"; // as HRESULT

class FirewallFailure : public FirewallTest
{
protected:
    /// Applies the filters with everything failing whose line contains `part`. `isSkipped` names the calls that are
    /// not made then; look-ups of filters are counted instead.
    void applyFailing(
        const QString &part, bool result, const QStringList &expectedWarnings,
        const std::function<bool(const QString &)> &isSkipped = [](const QString &) { return false; })
    {
        SCOPED_TRACE(part.toStdString());
        FirewallManager manager;
        ASSERT_TRUE(manager.initialize());
        m_calls.clear();
        m_log.clear();
        m_policy.ruleNames.clear();
        m_engine.filters.clear();
        m_calls.fail(part, someError);
        EXPECT_EQ(manager.applyStrictRoute(tunnelIndex, tunnelDns, true), result);
        m_added = m_engine.filters.size();

        QStringList made = m_calls.lines;
        QStringList expected;
        for (const QString &line : applying) {
            if (!line.startsWith("FwpmFilterGetById0") && !isSkipped(line))
                expected.append(line);
        }
        EXPECT_EQ(made.filter("FwpmFilterGetById0").size(), result ? static_cast<qsizetype>(m_added) : 0);
        made.removeIf([](const QString &line) { return line.startsWith("FwpmFilterGetById0"); });
        EXPECT_EQ(made, expected);

        QStringList logged = warnings();
        logged.removeIf([](const QString &line) {
            return line.startsWith("CRITICAL [WFP]") || line.startsWith("CRITICAL [FILTER-CHECK]");
        });
        EXPECT_EQ(logged, expectedWarnings);
        EXPECT_EQ(m_log.contains("DEBUG Strict route firewall rules applied successfully"), result);
        EXPECT_EQ(m_log.contains("[WFP] Created " + QString::number(m_added) + " filters"), result);
        EXPECT_EQ(m_engine.memory(), 0u);
        EXPECT_EQ(m_policy.liveObjects, 0);
        EXPECT_EQ(m_policy.liveTexts, 0);
        EXPECT_EQ(m_policy.comUses, 0);
    }

    /// How many filters there were after applyFailing.
    std::size_t m_added = 0;
};

QString quoted(QString path)
{
    return '"' + path.replace('\\', "\\\\") + '"';
}

TEST_F(FirewallFailure, ofTheEngineLeavesNoManager)
{
    m_calls.fail("FwpmEngineOpen0", someError);
    FirewallManager manager;
    EXPECT_FALSE(manager.initialize());
    EXPECT_EQ(m_log.lines(), QStringList{"CRITICAL Failed to open WFP engine: " + code});
    EXPECT_EQ(m_calls.linesWith("FwpmSubLayerAdd0"), QStringList());
    EXPECT_FALSE(manager.applyStrictRoute(tunnelIndex, tunnelDns, true));

    m_calls.clear();
    EXPECT_TRUE(manager.initialize()) << "the next attempt is a new one";
}

TEST_F(FirewallFailure, ofTheSublayerIsOnlyAWarning)
{
    m_calls.fail("FwpmSubLayerAdd0", someError);
    FirewallManager manager;
    EXPECT_TRUE(manager.initialize());
    EXPECT_EQ(m_log.lines(),
              (QStringList{"WARNING Failed to create WFP sublayer: " + code, "DEBUG Firewall manager initialized"}));
}

TEST_F(FirewallFailure, isNoneWhereTheSublayerExists)
{
    m_calls.fail("FwpmSubLayerAdd0", 0x80320009); // FWP_E_ALREADY_EXISTS
    FirewallManager manager;
    EXPECT_TRUE(manager.initialize());
    EXPECT_EQ(m_log.lines(), QStringList{"DEBUG Firewall manager initialized"});
}

TEST_F(FirewallFailure, ofTheSublayersKeyLeavesTheFiltersToTheDefaultOne)
{
    m_calls.fail("CoCreateGuid", someError);
    FirewallManager manager;
    EXPECT_TRUE(manager.initialize());
    EXPECT_EQ(m_log.linesWith("WARNING"),
              QStringList{"WARNING Failed to create WFP sublayer: " + QString::number(someError)});
    EXPECT_TRUE(manager.applyStrictRoute(tunnelIndex, tunnelDns, true));
    EXPECT_EQ(m_calls.linesWith(" in no sublayer ").size(), 17);
}

TEST_F(FirewallFailure, ofTheDaemonsIdFailsTheStepAndNoOther)
{
    applyFailing(
        "FwpmGetAppIdFromFileName0 " + daemonFile, false,
        {"WARNING Failed to get AppID for " + quoted(daemonFile), "WARNING Failed to add process permit filters"},
        [](const QString &line) { return line.endsWith("permit program " + daemonFile); });
    EXPECT_FALSE(m_log.contains("filters for ruvod.exe"));
    EXPECT_EQ(m_added, 13u);
}

TEST_F(FirewallFailure, ofTheCoresIdIsNoFailureAsItMayBeMissing)
{
    applyFailing("FwpmGetAppIdFromFileName0 " + coreFile, true,
                 {"WARNING Failed to get AppID for " + quoted(coreFile),
                  "WARNING Failed to add filters for xray.exe - proxy DNS may not work"},
                 [](const QString &line) { return line.endsWith("permit program " + coreFile); });
    EXPECT_TRUE(m_log.contains("CRITICAL [WFP] Created 13 filters"));
}

TEST_F(FirewallFailure, ofTheApplicationsIdIsNoFailureAsItMayBeMissing)
{
    applyFailing("FwpmGetAppIdFromFileName0 " + applicationFile, true,
                 {"WARNING Failed to get AppID for " + quoted(applicationFile),
                  "WARNING Failed to add filters for Ruvo.exe - GUI DNS may not work"},
                 [](const QString &line) { return line.endsWith("permit program " + applicationFile); });
}

TEST_F(FirewallFailure, ofOneFilterOfAProgramLeavesItTheOthers)
{
    struct Program
    {
        QString label;
        QString file;
        bool result;
        QString consequence;
    };
    const Program programs[] = {
        {"protect ipv4", daemonFile, false, "WARNING Failed to add process permit filters"},
        {"protect ipv4 xray", coreFile, true, "WARNING Failed to add filters for xray.exe - proxy DNS may not work"},
        {"protect ipv4 ruvo", applicationFile, true,
         "WARNING Failed to add filters for Ruvo.exe - GUI DNS may not work"},
    };
    const QStringList failures = {"ipv4", "ipv6", "ipv4 udp", "ipv6 udp"};
    for (const auto &[label, file, result, consequence] : programs) {
        const QStringList calls = permitting(label, file).mid(1);
        for (int filter = 0; filter < 4; ++filter) {
            applyFailing(
                calls[filter], result,
                {"WARNING Failed to add protect " + failures[filter] + " filter for " + quoted(file), consequence});
            EXPECT_EQ(m_added, 16u);
            EXPECT_FALSE(m_log.contains("DEBUG Added process permit filters for " + file.section('\\', -1)));
        }
    }
}

TEST_F(FirewallFailure, ofTheDaemonsPathFailsTheStepAndTheRule)
{
    for (const std::wstring &path : {std::wstring(), std::wstring(260, L'x'), std::wstring(300, L'x')}) {
        FirewallManager manager;
        ASSERT_TRUE(manager.initialize());
        m_calls.clear();
        m_log.clear();
        m_path = path;
        EXPECT_FALSE(manager.applyStrictRoute(tunnelIndex, tunnelDns, true));
        EXPECT_EQ(warnings(), (QStringList{"WARNING Failed to get current process path",
                                           "WARNING Failed to add process permit filters",
                                           "WARNING [WinFW] Failed to get process path",
                                           "WARNING Failed to add Windows Firewall inbound rule"}));
        EXPECT_EQ(m_calls.linesWith("FwpmFilterAdd0").size(), 5);
        EXPECT_EQ(m_calls.lines.size(), 5);
    }
}

TEST_F(FirewallFailure, isNotThatOfTheLongestPathThatFits)
{
    m_path = LR"(C:\)" + std::wstring(252, L'x') + L".exe"; // 259 characters
    ASSERT_EQ(m_path.size(), 259u);
    FirewallManager manager;
    ASSERT_TRUE(manager.initialize());
    EXPECT_TRUE(manager.applyStrictRoute(tunnelIndex, tunnelDns, true));
    EXPECT_EQ(m_calls.linesWith("permit program " + QString::fromStdWString(m_path)).size(), 4);
}

TEST_F(FirewallFailure, ofTheIpv6BlockFailsThatStep)
{
    applyFailing("'block ipv6'", false,
                 {"WARNING Failed to add block ipv6 filter: " + code, "WARNING Failed to add IPv6 block filter"});
}

TEST_F(FirewallFailure, ofTheTunnelsIpv4PermitLeavesTheIpv6OneOut)
{
    applyFailing(
        "'allow ipv4'", false,
        {"WARNING Failed to add allow ipv4 filter: " + code, "WARNING Failed to add interface permit filters"},
        [](const QString &line) { return line.contains("'allow ipv6'"); });
    EXPECT_FALSE(m_log.contains("Added interface permit filters"));
}

TEST_F(FirewallFailure, ofTheTunnelsIpv6PermitFailsThatStep)
{
    applyFailing(
        "'allow ipv6'", false,
        {"WARNING Failed to add allow ipv6 filter: " + code, "WARNING Failed to add interface permit filters"});
}

TEST_F(FirewallFailure, ofOneDnsBlockLeavesTheOther)
{
    applyFailing("'block ipv4 dns'", false,
                 {"WARNING Failed to add block ipv4 dns filter: " + code, "WARNING Failed to add DNS block filters"});
    applyFailing("'block ipv6 dns'", false,
                 {"WARNING Failed to add block ipv6 dns filter: " + code, "WARNING Failed to add DNS block filters"});
}

TEST_F(FirewallFailure, ofEveryFilterIsSaidForEach)
{
    FirewallManager manager;
    ASSERT_TRUE(manager.initialize());
    m_calls.fail("FwpmFilterAdd0", someError);
    EXPECT_FALSE(manager.applyStrictRoute(tunnelIndex, tunnelDns, true));
    EXPECT_EQ(m_calls.linesWith("FwpmFilterAdd0").size(), 16); // no IPv6 permit for the tunnel
    EXPECT_EQ(m_log.linesWith("WARNING Failed to add ").size(), 16 + 6);
    EXPECT_EQ(m_policy.ruleNames, QStringList{listenerRuleName}) << "the rule is added all the same";
}

TEST_F(FirewallFailure, ofTheLookUpRightAfterwardsChangesNoResult)
{
    applyFailing("FwpmFilterGetById0 1004", true, {});
    EXPECT_TRUE(m_log.contains("CRITICAL [FILTER-CHECK] ❌ Filter ID 1004 is MISSING! Error: " + code));
}

TEST_F(FirewallFailure, ofTheRuleChangesNoResult)
{
    applyFailing("INetFwRules::Add", true,
                 {"WARNING [WinFW] Failed to add firewall rule: " + comCode,
                  "WARNING Failed to add Windows Firewall inbound rule"});
}

/// One call after the other, whichever it is, from the manager's beginning to its end.
TEST_F(FirewallFailure, ofAnyCallIsSaidAndLeavesNothingBehind)
{
    // What goes with the session anyway, and the search for a rule that need not be there.
    const QStringList silent = {"FwpmFilterDeleteById0", "FwpmSubLayerDeleteByKey0", "FwpmEngineClose0"};
    int nth = 0;
    do {
        m_calls.clear();
        m_log.clear();
        m_engine.filters.clear();
        m_policy.ruleNames.clear();
        m_calls.failCall(++nth, someError);
        {
            FirewallManager manager;
            if (manager.initialize())
                manager.applyStrictRoute(tunnelIndex, tunnelDns, true);
        }
        const QString failed = m_calls.failed();
        SCOPED_TRACE(failed.toStdString());
        const bool isSilent =
            failed.isEmpty() || silent.contains(failed.section(' ', 0, 0))
            || m_log.contains("DEBUG [WinFW] Failed to remove the rule of an earlier run: " + comCode);
        EXPECT_EQ(m_log.contains("Failed to open WFP") || m_log.contains("WARNING ") || m_log.contains("is MISSING!"),
                  !isSilent);
        EXPECT_EQ(m_engine.openSessions, 0);
        EXPECT_EQ(m_engine.memory(), 0u);
        EXPECT_EQ(m_policy.liveObjects, 0);
        EXPECT_EQ(m_policy.liveTexts, 0);
        EXPECT_EQ(m_policy.comUses, 0);
    } while (!m_calls.failed().isEmpty());
    EXPECT_EQ(nth, 1 + 2 + 20 + 17 + 13 + 4 + 17 + 2 + 1) << "each call once, and none in the end";
}

} // namespace
} // namespace ruvo
