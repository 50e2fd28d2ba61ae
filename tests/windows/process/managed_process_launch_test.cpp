#include "windows/process/managed_process_fixture.h"

#include "windows/support/import_redirection.h"
#include "windows/support/own_resources.h"

#include <QElapsedTimer>
#include <QHash>
#include <QThread>

#include <atomic>

namespace ruvo {
namespace {

const QStringList waiting = {"--print", "ready", "--wait"};

using ManagedProcessLaunch = ManagedProcessTest;

TEST_F(ManagedProcessLaunch, fillsInWhatIsKnownOfTheRun)
{
    ASSERT_TRUE(start(waiting, {{"working-dir", "C:\\windows"},
                                {"environment", QJsonObject{{"A", "1"}}},
                                {"privileges", "system"},
                                {"session-id", 2}}));
    const ProcessInfo info = process->info();
    EXPECT_EQ(info.processId, "child");
    EXPECT_EQ(info.executable, test::testChildPath());
    EXPECT_EQ(info.arguments, waiting);
    EXPECT_EQ(info.workingDirectory, "C:\\windows");
    EXPECT_EQ(info.environment, (QJsonObject{{"A", "1"}}));
    EXPECT_EQ(info.privileges, "system");
    EXPECT_EQ(info.sessionId, 2u);
    EXPECT_EQ(info.state, 2);
    EXPECT_EQ(info.pid, GetProcessId(info.processHandle));
    EXPECT_NE(info.threadHandle, nullptr);
    EXPECT_NE(info.stdinWrite, nullptr);
    EXPECT_NE(info.stdoutRead, nullptr);
    EXPECT_NE(info.stderrRead, nullptr);
    EXPECT_LE(info.startTime.secsTo(QDateTime::currentDateTime()), 5);
    EXPECT_EQ(info.startTime.timeSpec(), Qt::LocalTime);
    EXPECT_TRUE(process->isRunning());
}

TEST_F(ManagedProcessLaunch, hasNoRunBeforeTheFirst)
{
    EXPECT_EQ(process->info().processId, "child");
    expectNoRun();
    EXPECT_TRUE(process->info().startTime.isNull());
}

TEST_F(ManagedProcessLaunch, tellsTheStartBeforeItReturnsAndBeforeTheThreadsStart)
{
    QStringList linesAtStart;
    QObject::connect(process.get(), &ManagedProcess::processStarted, [&] { linesAtStart = log.lines(); });
    ASSERT_TRUE(start(waiting));
    EXPECT_EQ(heard, QStringList({"started"}));
    const QString pid = QString::number(process->info().pid);
    EXPECT_EQ(linesAtStart.last(), "DEBUG [ProcessManager] Process started with PID: " + pid);
    EXPECT_TRUE(log.lines().contains(R"(DEBUG [ProcessManager] Monitor signal connected: true for process "child" )"
                                     "(DirectConnection)"));
}

TEST_F(ManagedProcessLaunch, failsWithoutASignal)
{
    EXPECT_TRUE(test::leavesNoHandles([this] {
        EXPECT_FALSE(start({}, {{"executable", "C:\\no such program.exe"}}));
        EXPECT_EQ(heard, QStringList());
        expectNoRun();
        EXPECT_TRUE(process->info().startTime.isNull());
    }));
}

TEST_F(ManagedProcessLaunch, hasNoMonitorWhereItsEventCannotBeMade)
{
    ASSERT_TRUE(startReady(waiting)); // what a first run opens for good
    process->kill();
    EXPECT_TRUE(test::leavesNoHandles([this] {
        {
            const test::ImportRedirection<IMPORT(CreateEventW)> createEvent(
                [&](LPSECURITY_ATTRIBUTES security, BOOL manual, BOOL initial, LPCWSTR name) -> HANDLE {
                    // The only one with manual reset that this thread makes.
                    return manual ? nullptr : createEvent.real(security, manual, initial, name);
                });
            heard.clear();
            ASSERT_TRUE(start(waiting));
        }
        EXPECT_TRUE(process->isRunning());
        EXPECT_TRUE(waitFor("stdout ready"));
        const KernelHandle child = openChild();
        TerminateProcess(child.get(), 3);
        ASSERT_TRUE(hasEnded(child));
        process->kill(); // and does not hang
        expectNoRun();
    }));
    EXPECT_FALSE(log.contains("leaving it behind"));
}

TEST_F(ManagedProcessLaunch, runsTheChildWithoutTheThreadsThatCannotBeMade)
{
    ASSERT_TRUE(startReady(waiting));
    process->kill();
    for (const int failing : {1, 2}) { // the monitor's, the reader's
        EXPECT_TRUE(test::leavesNoHandles([&] {
            log.clear();
            int threads = 0;
            {
                const test::ImportRedirection<IMPORT(CreateThread)> createThread([&](auto... arguments) -> HANDLE {
                    if (++threads != failing)
                        return createThread.real(arguments...);
                    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
                    return nullptr;
                });
                ASSERT_TRUE(start(waiting));
            }
            EXPECT_EQ(threads, 2);
            EXPECT_EQ(log.linesWith("Failed to create thread").size(), 1) << log.lines().join('\n').toStdString();
            EXPECT_TRUE(process->isRunning());
            process->kill();
            expectNoRun();
            EXPECT_FALSE(log.contains("leaving it behind"));
        }));
    }
}

TEST_F(ManagedProcessLaunch, leavesAThreadBehindThatDoesNotEndAndItsHandlesOpen)
{
    ASSERT_TRUE(startReady(waiting));
    process->kill();
    EXPECT_TRUE(test::leavesNoHandles([this] {
        process = std::make_unique<ManagedProcess>("child");
        const KernelHandle release(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        const DWORD serviceThread = GetCurrentThreadId();
        std::atomic<bool> stuck = false;
        std::atomic<bool> released = false;
        const test::ImportRedirection<IMPORT(Sleep)> sleep([&](DWORD milliseconds) {
            if (GetCurrentThreadId() == serviceThread || milliseconds != 50)
                return sleep.real(milliseconds);
            stuck = true;
            WaitForSingleObject(release.get(), 20000);
            released = true;
        });
        ASSERT_TRUE(start(waiting));
        const HANDLE pipe = process->info().stdoutRead;
        ASSERT_TRUE(test::waitUntil([&] { return stuck.load(); }));
        log.clear();
        QElapsedTimer timer;
        timer.start();
        process->kill();
        EXPECT_GE(timer.elapsed(), 1990);
        EXPECT_LT(timer.elapsed(), 10000);
        EXPECT_EQ(log.linesWith("WARNING"), QStringList({"WARNING [ManagedProcess] A worker thread did not end "
                                                         "within 2000 ms, leaving it behind"}));
        expectNoRun();
        EXPECT_EQ(GetFileType(pipe), DWORD{FILE_TYPE_PIPE}); // still open under the reader

        // The process may even go meanwhile.
        process.reset();
        SetEvent(release.get());
        EXPECT_TRUE(test::waitUntil([&] { return released.load(); }));
    }));
}

TEST_F(ManagedProcessLaunch, isReleasedFromItsStreamsToItsThread)
{
    ASSERT_TRUE(startReady(waiting));
    const ProcessInfo info = process->info();
    const QHash<HANDLE, QString> names = {
        {info.stdinWrite, "stdin"},      {info.stdoutRead, "stdout"},   {info.stderrRead, "stderr"},
        {info.processHandle, "process"}, {info.threadHandle, "thread"},
    };
    QStringList closed;
    const DWORD serviceThread = GetCurrentThreadId();
    const test::ImportRedirection<IMPORT(CloseHandle)> closeHandle([&](HANDLE handle) {
        if (GetCurrentThreadId() == serviceThread && names.contains(handle) && !closed.contains(names[handle]))
            closed.append(names[handle]);
        return closeHandle.real(handle);
    });
    process->kill();
    EXPECT_EQ(closed, QStringList({"stdin", "stdout", "stderr", "process", "thread"}));
}

TEST_F(ManagedProcessLaunch, isNotRunningOnceTheChildHasEndedThoughNobodyHasHandledThat)
{
    ASSERT_TRUE(start({"--exit", "4"}));
    const KernelHandle child = openChild();
    ASSERT_TRUE(hasEnded(child));
    log.clear();
    EXPECT_FALSE(process->isRunning());
    EXPECT_EQ(log.linesWith("[ManagedProcess]"),
              QStringList({R"(DEBUG [ManagedProcess] Process "child" has exited with code 4 but )"
                           "cleanup incomplete"}));
    EXPECT_EQ(process->info().state, 2);
    EXPECT_TRUE(waitFor("finished 4"));
}

TEST_F(ManagedProcessLaunch, isNotRunningWhereTheExitCodeCannotBeAsked)
{
    ASSERT_TRUE(startReady(waiting));
    const test::ImportRedirection<IMPORT(GetExitCodeProcess)> getExitCode([](auto...) {
        SetLastError(1234);
        return FALSE;
    });
    log.clear();
    EXPECT_FALSE(process->isRunning());
    EXPECT_EQ(log.lines(),
              QStringList({R"(DEBUG [ManagedProcess] GetExitCodeProcess failed for "child" - error: 1234)"}));
}

TEST_F(ManagedProcessLaunch, writesInputToTheRun)
{
    ASSERT_TRUE(start({"--print", "ready", "--read-line", "--wait"}));
    ASSERT_TRUE(waitFor("stdout ready"));
    process->writeToStdin("hello\n");
    EXPECT_TRUE(waitFor(R"(stdout {"fact":"line","text":"hello"})"));
}

TEST_F(ManagedProcessLaunch, writesNoInputWhereNothingRuns)
{
    const auto expectNoWrite = [this] {
        const test::ImportRedirection<IMPORT(CreateThread)> createThread([](auto...) -> HANDLE {
            ADD_FAILURE() << "a thread is created";
            return nullptr;
        });
        const test::ImportRedirection<IMPORT(WriteFile)> writeFile([](auto...) {
            ADD_FAILURE() << "something is written";
            return FALSE;
        });
        process->writeToStdin("nobody there\n");
        test::processPending();
    };
    expectNoWrite(); // before the first run
    ASSERT_TRUE(start({"--exit", "4"}));
    ASSERT_TRUE(waitFor("finished 4"));
    expectNoWrite();
    ASSERT_TRUE(startReady(waiting));
    process->writeToStdin("somebody there\n");
    process->kill();
    expectNoWrite();
}

TEST_F(ManagedProcessLaunch, keepsTheInputOfAnEarlierRunFromTheNext)
{
    ASSERT_TRUE(startReady({"--print", "ready", "--ignore-ctrl-c", "--wait"}));
    for (int i = 0; i < 512; ++i)
        process->writeToStdin(QByteArray(4096, 'x')); // much more than the pipe holds: most of it waits
    process->kill();
    ASSERT_TRUE(start({"--read-line", "--wait"}));
    process->writeToStdin("of the new run\n");
    EXPECT_TRUE(waitFor(R"(stdout {"fact":"line","text":"of the new run"})"));
}

} // namespace
} // namespace ruvo
