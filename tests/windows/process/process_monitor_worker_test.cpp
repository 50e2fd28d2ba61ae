#include "process/process_monitor_worker.h"

#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/process/child.h"
#include "windows/support/call_journal.h"
#include "windows/support/own_resources.h"

#include <gtest/gtest.h>

#include <QThread>

#include <memory>
#include <vector>

namespace ruvo {
namespace {

constexpr DWORD someError = 1234;
const QString starting = "DEBUG [ProcessMonitorWorker] Starting process monitoring";
const QString signalling = "DEBUG [ProcessMonitorWorker] Signaling stop event";
const QString stopped = "DEBUG [ProcessMonitorWorker] Monitoring stopped";

/// A child, its monitor, and what the monitor signals. Without waitForStart the monitor runs in the test's thread.
class MonitoredChild
{
public:
    explicit MonitoredChild(const QStringList &script) : child(script), monitor(child.launch())
    {
        QObject::connect(
            &monitor, &ProcessMonitorWorker::processExited, &monitor,
            [this](int code) {
                codes.push_back(code);
                signalThread = QThread::currentThread();
            },
            Qt::DirectConnection);
    }
    ~MonitoredChild()
    {
        monitor.stopMonitoring();
        waitForEnd();
    }

    /// Starts it in a thread of its own, and waits until it has begun.
    bool start(const test::LogCapture &log)
    {
        m_thread.reset(QThread::create([this] { monitor.startMonitoring(); }));
        m_thread->start();
        return test::waitUntil([&log] { return log.contains(starting); });
    }
    bool waitForEnd() { return !m_thread || m_thread->wait(5000); }
    const QThread *thread() const { return m_thread.get(); }

    test::LaunchedChild child;
    ProcessMonitorWorker monitor;
    std::vector<int> codes;
    const QThread *signalThread = nullptr;

private:
    std::unique_ptr<QThread> m_thread;
};

QStringList exitLines(const QString &code)
{
    return {
        starting,
        "DEBUG [ProcessMonitorWorker] Process exited with code: " + code + " - about to emit signal",
        "DEBUG [ProcessMonitorWorker] Signal emitted successfully, m_running: true",
    };
}

TEST(ProcessMonitorWorker, signalsTheExitCodeInItsOwnThread)
{
    MonitoredChild monitored({"--read-line", "--exit", "7"});
    const test::LogCapture log;
    ASSERT_TRUE(monitored.start(log));
    EXPECT_TRUE(monitored.codes.empty());
    monitored.child->stdinWrite.reset();
    EXPECT_TRUE(monitored.waitForEnd());
    EXPECT_EQ(monitored.codes, std::vector<int>({7}));
    EXPECT_EQ(monitored.signalThread, monitored.thread());
    EXPECT_EQ(log.lines(), exitLines("7"));
}

TEST(ProcessMonitorWorker, signalsTheExitOfAChildThatEndedBeforeIt)
{
    MonitoredChild monitored({"--exit", "0"});
    ASSERT_EQ(monitored.child.waitForExit(), 0u);
    monitored.monitor.startMonitoring();
    EXPECT_EQ(monitored.codes, std::vector<int>({0}));
}

TEST(ProcessMonitorWorker, takesExitCodesBeyondTheSignBitForNegativeOnes)
{
    MonitoredChild monitored({"--exit", "0xC0000005"});
    const test::LogCapture log;
    monitored.monitor.startMonitoring();
    EXPECT_EQ(monitored.codes, std::vector<int>({-1073741819}));
    EXPECT_EQ(log.lines(), exitLines("-1073741819"));
}

TEST(ProcessMonitorWorker, takesTheCodeOfAStillActiveProcessForAnExitCode)
{
    MonitoredChild monitored({"--exit", "259"});
    monitored.monitor.startMonitoring();
    EXPECT_EQ(monitored.codes, std::vector<int>({259}));
}

TEST(ProcessMonitorWorker, signalsNothingAfterAStop)
{
    MonitoredChild monitored({"--wait"});
    const test::LogCapture log;
    ASSERT_TRUE(monitored.start(log));
    monitored.monitor.stopMonitoring();
    EXPECT_TRUE(monitored.waitForEnd());
    EXPECT_TRUE(monitored.codes.empty());
    EXPECT_EQ(log.lines(), QStringList({starting, signalling, stopped}));
}

TEST(ProcessMonitorWorker, signalsNothingForAChildThatEndsRightAfterTheStop)
{
    for (int i = 0; i < 20; ++i) {
        MonitoredChild monitored({"--wait"});
        const test::LogCapture log;
        ASSERT_TRUE(monitored.start(log));
        monitored.monitor.stopMonitoring();
        monitored.child.terminate();
        EXPECT_TRUE(monitored.waitForEnd());
        EXPECT_TRUE(monitored.codes.empty());
    }
}

TEST(ProcessMonitorWorker, remembersAStopThatComesBeforeItsStart)
{
    MonitoredChild monitored({"--exit", "1"});
    ASSERT_EQ(monitored.child.waitForExit(), 1u);
    const test::LogCapture log;
    monitored.monitor.stopMonitoring();
    monitored.monitor.startMonitoring();
    EXPECT_TRUE(monitored.codes.empty());
    EXPECT_EQ(log.lines(), QStringList({starting, stopped}));
}

TEST(ProcessMonitorWorker, takesNoNoticeOfAStopAfterItsEnd)
{
    MonitoredChild monitored({"--exit", "1"});
    monitored.monitor.startMonitoring();
    const test::LogCapture log;
    monitored.monitor.stopMonitoring();
    EXPECT_EQ(log.lines(), QStringList());
}

TEST(ProcessMonitorWorker, waitsForTheProcessAndAnUnnamedManualResetEvent)
{
    test::CallJournal journal;
    journal.watch<IMPORT(CreateEventW)>();
    HANDLE waitedFor = nullptr;
    journal.watch<IMPORT(WaitForMultipleObjects)>([&](DWORD, const HANDLE *handles, BOOL, DWORD) {
        waitedFor = handles[0];
        return DWORD{WAIT_OBJECT_0};
    });
    MonitoredChild monitored({"--exit", "3"});
    ASSERT_EQ(monitored.child.waitForExit(), 3u);
    monitored.monitor.startMonitoring();
    EXPECT_EQ(journal.lines(), std::vector<std::string>({
                                   "CreateEventW(null, 1, 0, null)",
                                   "WaitForMultipleObjects(2, &, 0, 0xffffffff)",
                               }));
    EXPECT_EQ(waitedFor, monitored.child->process.get());
    EXPECT_EQ(monitored.codes, std::vector<int>({3}));
}

TEST(ProcessMonitorWorker, logsAWaitThatFails)
{
    MonitoredChild monitored({"--wait"});
    const test::LogCapture log;
    const test::ImportRedirection<IMPORT(WaitForMultipleObjects)> wait([](auto...) {
        SetLastError(someError);
        return DWORD{WAIT_FAILED};
    });
    monitored.monitor.startMonitoring();
    EXPECT_TRUE(monitored.codes.empty());
    EXPECT_EQ(log.lines(),
              QStringList({starting, "WARNING [ProcessMonitorWorker] WaitForMultipleObjects failed: 1234"}));
}

TEST(ProcessMonitorWorker, logsAStopEventThatNobodyAskedFor)
{
    MonitoredChild monitored({"--wait"});
    const test::LogCapture log;
    const test::ImportRedirection<IMPORT(WaitForMultipleObjects)> wait(
        [](auto...) { return DWORD{WAIT_OBJECT_0 + 1}; });
    monitored.monitor.startMonitoring();
    EXPECT_TRUE(monitored.codes.empty());
    EXPECT_EQ(log.lines(), QStringList({starting, "DEBUG [ProcessMonitorWorker] Stop event signaled"}));
}

TEST(ProcessMonitorWorker, signalsZeroWhenTheExitCodeCannotBeAsked)
{
    MonitoredChild monitored({"--exit", "5"});
    const test::ImportRedirection<IMPORT(GetExitCodeProcess)> getExitCode([](HANDLE, LPDWORD code) {
        *code = 99;
        return FALSE;
    });
    monitored.monitor.startMonitoring();
    EXPECT_EQ(monitored.codes, std::vector<int>({0}));
}

TEST(ProcessMonitorWorker, doesNothingWithoutAnEvent)
{
    test::CallJournal journal;
    journal.watch<IMPORT(CreateEventW)>();
    journal.fail("CreateEventW", ERROR_NOT_ENOUGH_MEMORY);
    MonitoredChild monitored({"--exit", "5"});
    ASSERT_EQ(monitored.child.waitForExit(), 5u);
    const test::LogCapture log;
    monitored.monitor.startMonitoring();
    monitored.monitor.stopMonitoring();
    EXPECT_TRUE(monitored.codes.empty());
    EXPECT_EQ(log.lines(), QStringList());
}

TEST(ProcessMonitorWorker, doesNothingWithoutAProcess)
{
    ProcessMonitorWorker monitor(std::make_shared<LaunchContext>());
    const test::LogCapture log;
    monitor.startMonitoring();
    EXPECT_EQ(log.lines(), QStringList());
}

TEST(ProcessMonitorWorker, closesItsEventAndNotTheProcess)
{
    const auto launch = std::make_shared<LaunchContext>();
    launch->process.reset(OpenProcess(SYNCHRONIZE, FALSE, GetCurrentProcessId()));
    const std::size_t handles = test::countOwnHandles();
    {
        const ProcessMonitorWorker monitor(launch);
        EXPECT_EQ(test::countOwnHandles(), handles + 1);
    }
    EXPECT_EQ(test::countOwnHandles(), handles);
}

} // namespace
} // namespace ruvo
