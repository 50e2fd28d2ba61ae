// The child that brings a TUN adapter of its own: what is done for it at its start and its end.

#include "windows/process/process_manager_fixture.h"

#include "windows/process/fake_adapters.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QTemporaryDir>

namespace ruvo {
namespace {

const QString companion = "sing-box-tun";

class ProcessManagerCompanion : public ProcessManagerTest
{
protected:
    // A Windows folder without pnputil: the removal fails at once, which is logged.
    ProcessManagerCompanion() { qputenv("WINDIR", m_noWindows.path().toUtf8()); }
    ~ProcessManagerCompanion() override { qputenv("WINDIR", m_windirBefore); }

    static QJsonObject withDns(const QString &address, const QString &interfaceName)
    {
        return {{"tun-dns-override", QJsonObject{{"address", address}, {"iface", interfaceName}}}};
    }
    /// Removals, launches and ends in the order of the log.
    QStringList steps() const
    {
        QStringList steps;
        for (const QString &line : log.lines()) {
            if (line.contains("Cleaning up TUN interface"))
                steps.append("removal");
            else if (line.contains("Starting Windows process"))
                steps.append("launch");
            else if (line.contains("onProcessFinished] Process") && line.contains("finished with"))
                steps.append("end");
        }
        return steps;
    }
    void settle(int milliseconds)
    {
        test::waitUntil([] { return false; }, std::chrono::milliseconds(milliseconds));
    }

    /// The wait has ended, without a word.
    void expectNoMoreLooks()
    {
        settle(300); // a look may be under way
        const int looks = adapters.queries;
        EXPECT_GT(looks, 0);
        settle(500);
        EXPECT_EQ(adapters.queries, looks);
        EXPECT_EQ(log.lines().filter(QRegularExpression("not UP|Cannot set DNS")), QStringList());
    }

    test::FakeAdapters adapters{{{L"ruvo-tun", "{01234567-89AB-CDEF-0123-456789ABCDEF}", true}}};

private:
    const QByteArray m_windirBefore = qgetenv("WINDIR");
    const QTemporaryDir m_noWindows;
};

TEST_F(ProcessManagerCompanion, hasItsLeftOverDeviceRemovedBeforeItsStartAndBeforeItsEndIsTold)
{
    QStringList stepsAtTheEnd;
    QObject::connect(manager.get(), &ProcessManager::processEvent, [&](const QJsonObject &event) {
        if (event["event"] == "finished")
            stepsAtTheEnd = steps();
    });
    start(companion, {"--exit", "0"});
    EXPECT_EQ(steps(), QStringList({"removal", "launch"}));
    ASSERT_TRUE(waitFor(companion, "finished: 0"));
    EXPECT_EQ(stepsAtTheEnd, QStringList({"removal", "launch", "removal", "end"}));
}

TEST_F(ProcessManagerCompanion, hasItsOutputFlushedBeforeTheDeviceIsRemoved)
{
    QStringList stepsAtTheOutput;
    QObject::connect(manager.get(), &ProcessManager::processEvent, [&](const QJsonObject &event) {
        if (event["event"] == "stdout")
            stepsAtTheOutput = steps();
    });
    runUnflushed(companion, {"--print", "last", "--wait"}, 5);
    EXPECT_EQ(eventsOf(companion), QStringList({"started", "stdout: last\n", "finished: 5"}));
    EXPECT_EQ(stepsAtTheOutput, QStringList({"removal", "launch"}));
    EXPECT_EQ(steps(), QStringList({"removal", "launch", "removal", "end"}));
}

TEST_F(ProcessManagerCompanion, hasItsDeviceRemovedThoughItCannotBeLaunched)
{
    start(companion, {}, {{"executable", "C:\\no such program.exe"}});
    EXPECT_EQ(steps(), QStringList({"removal", "launch"}));
}

TEST_F(ProcessManagerCompanion, keepsItsDeviceWhileItRunsAndWhenItIsKilled)
{
    ASSERT_EQ(start(companion, {"--wait"})["status"], "started");
    EXPECT_EQ(start(companion, {"--wait"})["status"], "error");
    manager->killProcess(companion);
    test::processPending();
    EXPECT_EQ(steps(), QStringList({"removal", "launch"}));
}

TEST_F(ProcessManagerCompanion, hasItsDeviceRemovedWhenAllAreStopped)
{
    const QStringList obeying = {"--ctrl-c-exit", "9", "--print", "ready", "--wait"};
    ASSERT_TRUE(startReady(companion, obeying));
    ASSERT_TRUE(startReady("child", obeying));
    QStringList stepsAtTheEnd;
    QObject::connect(manager.get(), &ProcessManager::processEvent, [&](const QJsonObject &event) {
        if (event["event"] == "finished" && event["process-id"] == companion)
            stepsAtTheEnd = steps().filter("removal");
    });
    log.clear();
    manager->stopAll(10000);
    EXPECT_EQ(stepsAtTheEnd, QStringList({"removal"}));
    EXPECT_EQ(steps().count("removal"), 1);
    EXPECT_EQ(steps().count("end"), 2);
    EXPECT_EQ(eventsOf(companion).last(), "finished: 9");
    EXPECT_EQ(eventsOf("child").last(), "finished: 9");
    EXPECT_EQ(registered(), 0);
    EXPECT_EQ(log.lines().last(), "INFO [ProcessManager] All processes stopped gracefully");
}

TEST_F(ProcessManagerCompanion, isKnownByItsExactIdOnly)
{
    for (const char *processId : {"Sing-Box-Tun", "sing-box-tun ", "sing-box", "SING-BOX-TUN"}) {
        log.clear();
        start(processId, {"--exit", "0"});
        ASSERT_TRUE(waitFor(processId, "finished: 0"));
        EXPECT_EQ(steps(), QStringList({"launch", "end"})) << processId;
    }
    EXPECT_EQ(adapters.queries, 0);
}

TEST_F(ProcessManagerCompanion, getsItsDnsServerAMomentAfterTheStart)
{
    QElapsedTimer timer;
    timer.start();
    start("child", {"--wait"}, withDns("172.19.0.2", "ruvo-tun"));
    EXPECT_FALSE(log.contains("Configuring DNS"));
    ASSERT_TRUE(test::waitUntil([this] { return log.contains("Configuring DNS"); }));
    EXPECT_GE(timer.elapsed(), 99);
    EXPECT_TRUE(log.contains(R"(Configuring DNS for interface "ruvo-tun" to "172.19.0.2")"));
}

TEST_F(ProcessManagerCompanion, getsNoDnsServerWithoutAddressOrInterface)
{
    start("a", {"--wait"}, withDns("", "ruvo-tun"));
    start("b", {"--wait"}, withDns("172.19.0.2", ""));
    start("c", {"--wait"}, {{"tun-dns-override", QJsonObject()}});
    start("d", {"--wait"}, {{"tun-dns-override", "172.19.0.2"}});
    start("e", {"--wait"});
    settle(400);
    EXPECT_FALSE(log.contains("Configuring DNS"));
    EXPECT_EQ(registered(), 5);
}

TEST_F(ProcessManagerCompanion, getsNoDnsServerWhereTheStartFails)
{
    QJsonObject more = withDns("172.19.0.2", "ruvo-tun");
    more["executable"] = "C:\\no such program.exe";
    start("child", {}, more);
    settle(300);
    EXPECT_FALSE(log.contains("Configuring DNS"));
}

TEST_F(ProcessManagerCompanion, leavesTheRequestsOfOthersTheirTurnWhileItWaits)
{
    adapters.adapters.clear();
    start("child", {"--wait"}, withDns("172.19.0.2", "ruvo-tun"));
    // Both arrive within the wait.
    bool answered = false;
    QTimer::singleShot(500, [&] {
        answered =
            manager->startProcess(test::childSpec("other", {"--print", "hello", "--wait"}))["status"] == "started";
    });
    adapters.onQuery = [this](int) {
        if (eventsOf("other").contains("stdout: hello\n"))
            adapters.adapters = {{L"ruvo-tun", "{1}", true}};
    };
    ASSERT_TRUE(test::waitUntil([this] { return log.contains("is UP after"); }));
    EXPECT_TRUE(answered);
}

TEST_F(ProcessManagerCompanion, isNotWaitedForOnceItHasEnded)
{
    adapters.adapters.clear();
    start("child", {"--sleep", "400", "--exit", "3"}, withDns("172.19.0.2", "ruvo-tun"));
    ASSERT_TRUE(waitFor("child", "finished: 3"));
    EXPECT_EQ(registered(), 0);
    expectNoMoreLooks();
}

TEST_F(ProcessManagerCompanion, isNotWaitedForOnceItWasKilled)
{
    adapters.adapters.clear();
    start("child", {"--wait"}, withDns("172.19.0.2", "ruvo-tun"));
    QTimer::singleShot(500, [this] { manager->killProcess("child"); });
    ASSERT_TRUE(test::waitUntil([this] { return log.contains("TerminateProcess succeeded"); }));
    EXPECT_EQ(registered(), 1); // of which nothing runs
    expectNoMoreLooks();
}

TEST_F(ProcessManagerCompanion, isNotEvenBegunToBeWaitedForAfterItsEnd)
{
    start("child", {"--wait"}, withDns("172.19.0.2", "ruvo-tun"));
    manager->killProcess("child");
    settle(300);
    EXPECT_FALSE(log.contains("Configuring DNS"));
    EXPECT_EQ(adapters.queries, 0);
}

TEST_F(ProcessManagerCompanion, isWaitedForWhileItIsRestarted)
{
    adapters.adapters.clear();
    QJsonObject more = withDns("172.19.0.2", "ruvo-tun");
    more["auto-restart"] = true;
    more["restart-delay-ms"] = 600;
    start("child", {"--sleep", "300", "--exit", "3"}, more);
    adapters.onQuery = [this](int) {
        if (eventsOf("child").count("started") == 2)
            adapters.adapters = {{L"ruvo-tun", "{1}", true}};
    };
    EXPECT_TRUE(test::waitUntil([this] { return log.contains("is UP after"); }));
}

TEST_F(ProcessManagerCompanion, getsItsDnsServerOnceThoughItIsRestarted)
{
    QJsonObject more = withDns("172.19.0.2", "ruvo-tun");
    more["auto-restart"] = true;
    more["max-restart-attempts"] = 2;
    more["restart-delay-ms"] = 200;
    start("child", {"--exit", "3"}, more);
    ASSERT_TRUE(waitFor("child", "finished: 3"));
    settle(300);
    EXPECT_EQ(eventsOf("child").count("started"), 3);
    EXPECT_EQ(log.linesWith("Configuring DNS for interface").size(), 1);
}

} // namespace
} // namespace ruvo
