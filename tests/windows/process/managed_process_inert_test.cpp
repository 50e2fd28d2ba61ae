// The handlers of the QProcess that is never started, called by hand.

#include "windows/process/managed_process_fixture.h"

#include <QMetaMethod>

namespace ruvo {
namespace {

using ManagedProcessInert = ManagedProcessTest;

TEST_F(ManagedProcessInert, hasAQProcessThatIsNotStarted)
{
    ASSERT_TRUE(start({"--exit", "0"}));
    const QList<QProcess *> inert = process->findChildren<QProcess *>();
    ASSERT_EQ(inert.size(), 1);
    EXPECT_EQ(inert.first()->state(), QProcess::NotRunning);
    ASSERT_TRUE(waitFor("finished 0"));
}

TEST_F(ManagedProcessInert, isKnownToTheMetaObjectSystem)
{
    for (const char *slot : {
             "onWindowsProcessExited(int)",
             "handleProcessExit(int)",
             "attemptRestart()",
             "stopKillTimer()",
             "onProcessStarted()",
             "onProcessFinished(int,QProcess::ExitStatus)",
             "onProcessError(QProcess::ProcessError)",
             "onProcessStateChanged(QProcess::ProcessState)",
             "onStdoutReady()",
             "onStderrReady()",
         }) {
        EXPECT_GE(ManagedProcess::staticMetaObject.indexOfSlot(slot), 0) << slot;
    }
    for (const char *signal :
         {"processStarted(QString)", "processFinished(QString,int)", "processError(QString,QString)",
          "stdoutReady(QString,QByteArray)", "stderrReady(QString,QByteArray)"}) {
        EXPECT_GE(ManagedProcess::staticMetaObject.indexOfSignal(signal), 0) << signal;
    }
}

TEST_F(ManagedProcessInert, takesAStartForARun)
{
    process->onProcessStarted();
    EXPECT_EQ(heard, QStringList({"started"}));
    EXPECT_EQ(process->info().state, 2);
    EXPECT_EQ(process->info().pid, 0); // that of a QProcess that does not run
    EXPECT_LE(process->info().startTime.secsTo(QDateTime::currentDateTime()), 5);
    EXPECT_FALSE(process->isRunning());
}

TEST_F(ManagedProcessInert, tellsTheEndAndItsCode)
{
    process->onProcessFinished(12, QProcess::NormalExit);
    EXPECT_EQ(heard, QStringList({"finished 12"}));
    EXPECT_EQ(log.lines(), QStringList({R"(DEBUG Process "child" finished with exit code 12)"}));
}

TEST_F(ManagedProcessInert, decidesOnARestartAsAfterAnExit)
{
    ASSERT_TRUE(start({"--wait"}, {{"auto-restart", true}, {"restart-delay-ms", 60000}}));
    process->onProcessFinished(12, QProcess::CrashExit);
    EXPECT_EQ(count("finished 12"), 0);
    EXPECT_EQ(process->info().restartAttempts, 1);
    EXPECT_FALSE(nothingIsPending());
    EXPECT_TRUE(process->isRunning()); // resources are not released
}

TEST_F(ManagedProcessInert, hasATextForEachError)
{
    for (int error = 0; error <= 6; ++error)
        process->onProcessError(static_cast<QProcess::ProcessError>(error));
    EXPECT_EQ(heard, QStringList({
                         "error Failed to start process",
                         "error Process crashed",
                         "error Process timed out",
                         "error Read error",
                         "error Write error",
                         "error Unknown error",
                         "error Unknown error",
                     }));
}

TEST_F(ManagedProcessInert, keepsTheStateItIsTold)
{
    process->onProcessStateChanged(QProcess::Starting);
    EXPECT_EQ(process->info().state, 1);
    process->onProcessStateChanged(QProcess::NotRunning);
    EXPECT_EQ(process->info().state, 0);
}

TEST_F(ManagedProcessInert, passesOnWhatTheQProcessHasRead)
{
    process->onStdoutReady();
    process->onStderrReady();
    EXPECT_EQ(heard, QStringList({"stdout ", "stderr "}));
}

} // namespace
} // namespace ruvo
