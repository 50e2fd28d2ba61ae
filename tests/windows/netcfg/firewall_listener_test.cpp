// The rule of the Windows Firewall for the daemon's listener, through COM.

#include "windows/netcfg/firewall_expectations.h"
#include "windows/netcfg/firewall_fixture.h"

#include <thread>

namespace ruvo {
namespace {

using namespace test;

constexpr auto someError = static_cast<std::uint32_t>(E_UNEXPECTED);
const QString code = "-2147418113";
const QString noMemory = "-2147024882"; // E_OUTOFMEMORY

const QStringList removed = {"DEBUG [WinFW] ✓ Removed Windows Firewall rule"};
const QStringList cleared = {"DEBUG [WinFW] Cleared the rule's name for the new one"};
const QStringList added = {"DEBUG [WinFW] ✓ Added Windows Firewall inbound allow rule for TCP"};

class FirewallListener : public FirewallTest
{
protected:
    FirewallListener() { m_calls.clear(); } // the manager's key

    void expectNothingLeft()
    {
        EXPECT_EQ(m_policy.liveObjects, 0);
        EXPECT_EQ(m_policy.liveTexts, 0);
        EXPECT_EQ(m_policy.comUses, 0);
    }

    FirewallManager m_manager;
};

TEST_F(FirewallListener, getsAnEnabledInboundRuleForTheDaemonOnly)
{
    EXPECT_TRUE(m_manager.addFirewallRule());
    EXPECT_EQ(m_calls.lines, addingRule);
    EXPECT_EQ(m_log.lines(), added);
    EXPECT_EQ(m_policy.ruleNames, QStringList{listenerRuleName});
    expectNothingLeft();
}

TEST_F(FirewallListener, losesItsRuleByTheNameThatWasAdded)
{
    ASSERT_TRUE(m_manager.addFirewallRule());
    m_path = L"C:\\Elsewhere\\ruvod.exe";
    m_calls.clear();
    m_log.clear();
    EXPECT_TRUE(m_manager.removeFirewallRule());
    EXPECT_EQ(m_calls.lines, removingRule);
    EXPECT_EQ(m_log.lines(), removed);
    EXPECT_EQ(m_policy.ruleNames, QStringList());
    expectNothingLeft();
}

TEST_F(FirewallListener, mayLoseItsRuleTwice)
{
    ASSERT_TRUE(m_manager.addFirewallRule());
    ASSERT_TRUE(m_manager.removeFirewallRule());
    m_calls.clear();
    m_log.clear();
    EXPECT_TRUE(m_manager.removeFirewallRule());
    EXPECT_EQ(m_calls.lines, removingRule);
    EXPECT_EQ(m_log.lines(), QStringList{"DEBUG [WinFW] Rule already removed"});
}

TEST_F(FirewallListener, hasARuleOfItsOwnInEachFolder)
{
    EXPECT_TRUE(m_manager.addFirewallRule());
    m_path = L"D:\\Other folder\\ruvod.exe";
    FirewallManager other;
    EXPECT_TRUE(other.addFirewallRule());
    EXPECT_EQ(m_policy.ruleNames, (QStringList{listenerRuleName, "RUVO TUN (D:\\Other folder\\ruvod.exe)"}));
    EXPECT_TRUE(other.removeFirewallRule());
    EXPECT_EQ(m_policy.ruleNames, QStringList{listenerRuleName});
}

TEST_F(FirewallListener, keepsCharactersOfAnyLanguage)
{
    m_path = L"C:\\T\u00FCr \u20AC\\ruvod.exe";
    EXPECT_TRUE(m_manager.addFirewallRule());
    EXPECT_EQ(m_policy.ruleNames, QStringList{QString::fromWCharArray(L"RUVO TUN (C:\\T\u00FCr \u20AC\\ruvod.exe)")});
}

TEST_F(FirewallListener, replacesTheRuleOfADaemonThatWasKilled)
{
    m_policy.ruleNames = {"RUVO TUN (C:\\Other\\ruvod.exe)", listenerRuleName};
    EXPECT_TRUE(m_manager.addFirewallRule());
    EXPECT_EQ(m_policy.ruleNames, (QStringList{"RUVO TUN (C:\\Other\\ruvod.exe)", listenerRuleName}));
    EXPECT_EQ(m_log.lines(), cleared + added);
}

/// Nobody can tell then whether there was one.
TEST_F(FirewallListener, speaksOfNoOldRuleWhereWindowsRemovesWhatIsNotThere)
{
    m_policy.absentRuleIsNoError = true;
    EXPECT_TRUE(m_manager.addFirewallRule());
    EXPECT_EQ(m_log.lines(), cleared + added);
    EXPECT_EQ(m_calls.lines, addingRule);
    EXPECT_EQ(m_policy.ruleNames, QStringList{listenerRuleName});
    m_log.clear();
    EXPECT_TRUE(m_manager.removeFirewallRule());
    EXPECT_TRUE(m_manager.removeFirewallRule());
    EXPECT_EQ(m_log.lines(), removed + removed);
    EXPECT_EQ(m_policy.ruleNames, QStringList());
    expectNothingLeft();
}

TEST_F(FirewallListener, getsItsRuleEvenIfAnOldOneCannotBeRemoved)
{
    m_calls.fail("INetFwRules::Remove", someError);
    EXPECT_TRUE(m_manager.addFirewallRule());
    EXPECT_EQ(m_log.lines(),
              QStringList{"DEBUG [WinFW] Failed to remove the rule of an earlier run: " + code} + added);
    EXPECT_EQ(m_calls.lines, addingRule);
}

TEST_F(FirewallListener, hasNoRuleToLoseBeforeItGotOne)
{
    EXPECT_TRUE(m_manager.removeFirewallRule());
    EXPECT_EQ(m_calls.lines.filter("Co"), QStringList());
    EXPECT_EQ(m_log.lines(), QStringList());
}

TEST_F(FirewallListener, hasNoRuleForAPathThatDoesNotFit)
{
    for (const std::wstring &path : {std::wstring(), std::wstring(260, L'x'), std::wstring(1000, L'x')}) {
        m_path = path;
        m_log.clear();
        EXPECT_FALSE(m_manager.addFirewallRule());
        EXPECT_EQ(m_log.lines(), QStringList{"WARNING [WinFW] Failed to get process path"});
        EXPECT_EQ(m_calls.lines, QStringList());
    }
    m_path = std::wstring(259, L'x');
    EXPECT_TRUE(m_manager.addFirewallRule());
}

/// What follows a call that failed: nothing of the rule, and COM ends where it had begun.
TEST_F(FirewallListener, getsNoHalfOfARule)
{
    const QString addFailure = "WARNING [WinFW] Failed to add firewall rule: " + code;
    const QList<std::pair<QString, QString>> failures = {
        {"CoInitializeEx", "WARNING [WinFW] Failed to initialize COM: " + code},
        {"CoCreateInstance NetFwPolicy2", "WARNING [WinFW] Failed to create INetFwPolicy2: " + code},
        {"INetFwPolicy2::get_Rules", "WARNING [WinFW] Failed to get Rules collection: " + code},
        {"CoCreateInstance NetFwRule", "WARNING [WinFW] Failed to create INetFwRule: " + code},
        {"INetFwRule::put_Name", addFailure},
        {"INetFwRule::put_Description", addFailure},
        {"INetFwRule::put_ApplicationName", addFailure},
        {"INetFwRule::put_Protocol", addFailure},
        {"INetFwRule::put_Direction", addFailure},
        {"INetFwRule::put_Action", addFailure},
        {"INetFwRule::put_Enabled", addFailure},
        {"INetFwRules::Add", addFailure},
    };
    for (const auto &[call, text] : failures) {
        SCOPED_TRACE(call.toStdString());
        m_calls.clear();
        m_log.clear();
        m_calls.fail(call, someError);
        EXPECT_FALSE(m_manager.addFirewallRule());
        EXPECT_EQ(m_log.lines(), QStringList{text});
        QStringList expected;
        for (const QString &line : addingRule) {
            expected.append(line);
            if (line.startsWith(call))
                break;
        }
        if (call != "CoInitializeEx")
            expected.append("CoUninitialize");
        EXPECT_EQ(m_calls.lines, expected);
        EXPECT_EQ(m_policy.ruleNames, QStringList());
        expectNothingLeft();
    }
}

TEST_F(FirewallListener, keepsItsRuleWhereRemovingItFails)
{
    ASSERT_TRUE(m_manager.addFirewallRule());
    const QList<std::pair<QString, QString>> failures = {
        {"CoInitializeEx", "WARNING [WinFW] Failed to initialize COM: " + code},
        {"CoCreateInstance NetFwPolicy2", "WARNING [WinFW] Failed to create INetFwPolicy2: " + code},
        {"INetFwPolicy2::get_Rules", "WARNING [WinFW] Failed to get Rules collection: " + code},
        {"INetFwRules::Remove", "WARNING [WinFW] Failed to remove firewall rule: " + code},
    };
    for (const auto &[call, text] : failures) {
        SCOPED_TRACE(call.toStdString());
        m_calls.clear();
        m_log.clear();
        m_calls.fail(call, someError);
        EXPECT_FALSE(m_manager.removeFirewallRule());
        EXPECT_EQ(m_log.lines(), QStringList{text});
        EXPECT_EQ(m_policy.ruleNames, QStringList{listenerRuleName});
        expectNothingLeft();
    }
}

TEST_F(FirewallListener, getsNoRuleWithoutMemoryForItsTexts)
{
    for (int nth = 1; nth <= 3; ++nth) { // name, description, path
        m_log.clear();
        m_policy.refuseText(nth);
        EXPECT_FALSE(m_manager.addFirewallRule());
        EXPECT_EQ(m_log.lines(), QStringList{"WARNING [WinFW] Failed to add firewall rule: " + noMemory});
        expectNothingLeft();
    }
    EXPECT_EQ(m_policy.ruleNames, QStringList());
    m_log.clear();
    m_policy.refuseText(4); // the name of an old rule
    EXPECT_TRUE(m_manager.addFirewallRule());
    m_log.clear();
    m_policy.refuseText(1);
    EXPECT_FALSE(m_manager.removeFirewallRule());
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING [WinFW] Failed to remove firewall rule: " + noMemory});
}

TEST_F(FirewallListener, usesTheApartmentThatTheThreadHas)
{
    m_policy.initialization = S_FALSE; // the thread's own kind, once more: to be undone
    EXPECT_TRUE(m_manager.addFirewallRule());
    EXPECT_EQ(m_calls.lines.last(), "CoUninitialize");
    expectNothingLeft();

    m_policy.initialization = RPC_E_CHANGED_MODE; // another kind: nothing to undo
    m_calls.clear();
    m_log.clear();
    EXPECT_TRUE(m_manager.addFirewallRule());
    EXPECT_TRUE(m_manager.removeFirewallRule());
    EXPECT_EQ(m_calls.linesWith("CoUninitialize"), QStringList());
    EXPECT_EQ(m_log.linesWith("WARNING"), QStringList());
    expectNothingLeft();
}

/// With COM's own apartments. The thread's apartment lasts as long as somebody uses it.
TEST_F(FirewallListener, isServedFromAMultithreadedApartment)
{
    m_policy.usesRealApartments = true;
    std::thread([this] {
        ASSERT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
        m_calls.clear();
        EXPECT_TRUE(m_manager.addFirewallRule());
        EXPECT_TRUE(m_manager.removeFirewallRule());
        EXPECT_EQ(m_calls.linesWith("CoInitializeEx 2").size(), 2);
        EXPECT_EQ(m_calls.linesWith("CoUninitialize"), QStringList());
        EXPECT_EQ(m_log.lines().size(), 2);
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), RPC_E_CHANGED_MODE) << "the apartment is gone";
        CoUninitialize();
    }).join();
    EXPECT_EQ(m_policy.ruleNames, QStringList());
}

TEST_F(FirewallListener, endsTheApartmentThatItHasMade)
{
    m_policy.usesRealApartments = true;
    std::thread([this] {
        EXPECT_TRUE(m_manager.addFirewallRule());
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK) << "the apartment is still there";
        CoUninitialize();
    }).join();
}

} // namespace
} // namespace ruvo
