#include "process/child_launch.h"

#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/process/child.h"
#include "windows/support/import_redirection.h"
#include "windows/support/own_resources.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <cstring>
#include <optional>

namespace ruvo {
namespace {

bool isInheritable(HANDLE handle)
{
    DWORD flags = 0;
    EXPECT_TRUE(GetHandleInformation(handle, &flags));
    return (flags & HANDLE_FLAG_INHERIT) != 0;
}

/// What CreateProcessW was given.
struct CreateProcessCall
{
    bool applicationNamed = true;
    QString commandLine;
    bool hasSecurity = true;
    BOOL inherit = FALSE;
    DWORD flags = 0;
    bool hasEnvironment = true;
    std::optional<QString> directory;
    STARTUPINFOW startup{};
    bool streamsInheritable = false;
};

CreateProcessCall callOf(const ProcessInfo &info)
{
    CreateProcessCall call;
    const test::ImportRedirection<IMPORT(CreateProcessW)> redirection(
        [&call](LPCWSTR application, LPWSTR line, LPSECURITY_ATTRIBUTES process, LPSECURITY_ATTRIBUTES thread,
                BOOL inherit, DWORD flags, LPVOID environment, LPCWSTR directory, LPSTARTUPINFOW startup,
                LPPROCESS_INFORMATION) {
            call.applicationNamed = application != nullptr;
            call.commandLine = QString::fromWCharArray(line);
            line[0] = L'?'; // Windows may do that, so it must not be a constant
            call.hasSecurity = process || thread;
            call.inherit = inherit;
            call.flags = flags;
            call.hasEnvironment = environment != nullptr;
            if (directory)
                call.directory = QString::fromWCharArray(directory);
            call.startup = *startup;
            call.streamsInheritable = isInheritable(startup->hStdInput) && isInheritable(startup->hStdOutput)
                                      && isInheritable(startup->hStdError);
            return FALSE;
        });
    EXPECT_FALSE(launchChild(info));
    return call;
}

/// Whether it was called for testchild with `--sleep 0`, which gets a hidden console and a group of its own.
void expectPlainCall(const CreateProcessCall &call)
{
    EXPECT_FALSE(call.applicationNamed);
    EXPECT_EQ(call.commandLine, '"' + test::testChildPath() + R"(" "--sleep" "0")");
    EXPECT_FALSE(call.hasSecurity);
    EXPECT_EQ(call.inherit, TRUE);
    EXPECT_EQ(call.flags, 0x610u);
    EXPECT_FALSE(call.hasEnvironment);
    EXPECT_EQ(call.directory, std::nullopt);

    STARTUPINFOW expected{};
    expected.cb = 104;
    expected.dwFlags = 0x101;
    expected.wShowWindow = 0;
    expected.hStdInput = call.startup.hStdInput;
    expected.hStdOutput = call.startup.hStdOutput;
    expected.hStdError = call.startup.hStdError;
    EXPECT_EQ(std::memcmp(&call.startup, &expected, sizeof(expected)), 0);
    EXPECT_TRUE(call.streamsInheritable);
}

TEST(ChildLaunch, callsCreateProcessForAHiddenConsoleAndGroupOfItsOwn)
{
    expectPlainCall(callOf(test::childInfo({"--sleep", "0"})));
}

TEST(ChildLaunch, makesNothingOfEnvironmentPrivilegesAndSession)
{
    ProcessInfo info = test::childInfo({"--sleep", "0"});
    info.environment = {{"A", "1"}};
    info.privileges = "user";
    info.sessionId = 3;
    expectPlainCall(callOf(info));
}

TEST(ChildLaunch, namesTheWorkingDirectoryOnlyIfThereIsOne)
{
    ProcessInfo info = test::childInfo({});
    info.workingDirectory = "C:\\windows";
    EXPECT_EQ(callOf(info).directory, "C:\\windows");
}

TEST(ChildLaunch, logsTheSessionAndTheCommandLine)
{
    const test::LogCapture log;
    ProcessInfo info = test::childInfo({});
    info.executable = "child.exe";
    info.sessionId = 3;
    callOf(info);
    EXPECT_EQ(log.lines().first(3), QStringList({
                                        "DEBUG [ProcessManager] Starting Windows process in session 3",
                                        R"(DEBUG [ProcessManager] Command line: "\"child.exe\"")",
                                        "DEBUG [ProcessManager] Running with elevated privileges (SYSTEM)",
                                    }));
}

TEST(ChildLaunch, givesTheRunItsHandlesAndProcessId)
{
    test::LaunchedChild child({"--pid", "--wait"});
    ASSERT_TRUE(child.launch());
    EXPECT_EQ(child.waitForFact("pid")["pid"].toInteger(), child->pid);
    EXPECT_EQ(GetProcessId(child->process.get()), child->pid);
    EXPECT_NE(GetThreadId(child->thread.get()), 0u);
    EXPECT_EQ(child->state, QProcess::Running);
    EXPECT_FALSE(isInheritable(child->stdinWrite.get()));
    EXPECT_FALSE(isInheritable(child->stdoutRead.get()));
    EXPECT_FALSE(isInheritable(child->stderrRead.get()));
}

TEST(ChildLaunch, connectsTheChildsThreeStreams)
{
    test::LaunchedChild child({"--print", "output", "--error", "error", "--read-line"});
    ASSERT_TRUE(child.launch());
    DWORD written = 0;
    ASSERT_TRUE(WriteFile(child->stdinWrite.get(), "hello\n", 6, &written, nullptr));
    EXPECT_EQ(child.waitForFact("line")["text"], "hello");
    EXPECT_TRUE(child.output().startsWith("output\n"));
    EXPECT_EQ(child.errors(), "error\n");
}

TEST(ChildLaunch, keepsNoEndOfThePipesThatIsTheChilds)
{
    test::LaunchedChild child({"--exit", "0"});
    ASSERT_TRUE(child.launch());
    ASSERT_EQ(child.waitForExit(), 0u);
    // An end that somebody still held would keep the pipe alive. (The console goes a moment after its last process,
    // and it may have inherited the streams.)
    DWORD count = 0;
    for (const HANDLE pipe : {child->stdoutRead.get(), child->stderrRead.get()}) {
        EXPECT_TRUE(test::waitUntil([&] {
            return !PeekNamedPipe(pipe, nullptr, 0, nullptr, &count, nullptr) && GetLastError() == ERROR_BROKEN_PIPE;
        }));
    }
    EXPECT_FALSE(WriteFile(child->stdinWrite.get(), "x", 1, &count, nullptr));
}

TEST(ChildLaunch, letsTheChildInheritNothingButItsThreeStreams)
{
    // A service has none of these, the test may have inherited its own.
    for (const DWORD which : {STD_INPUT_HANDLE, STD_OUTPUT_HANDLE, STD_ERROR_HANDLE})
        SetHandleInformation(GetStdHandle(which), HANDLE_FLAG_INHERIT, 0);

    test::LaunchedChild earlier({"--wait"});
    test::LaunchedChild child({"--handles", "--wait"});
    ASSERT_TRUE(earlier.launch() && child.launch());
    ASSERT_FALSE(child.waitForFact("handles").isEmpty());
    QStringList inherited;
    for (const QJsonObject &handle : child.facts("handle")) {
        if (handle["inheritable"].toBool())
            inherited.append(handle["standard"].toString("no stream: ") + ' ' + handle["object"].toString() + ' '
                             + handle["file"].toString());
    }
    inherited.sort();
    EXPECT_EQ(inherited, QStringList({"stderr File pipe", "stdin File pipe", "stdout File pipe"}));
}

TEST(ChildLaunch, givesTheChildTheDaemonsEnvironmentAndDirectory)
{
    qputenv("RUVO_TEST_VARIABLE", "of the daemon");
    test::LaunchedChild child({"--environment", "RUVO_TEST_VARIABLE", "--directory", "--wait"});
    ASSERT_TRUE(child.launch());
    EXPECT_EQ(child.waitForFact("directory")["path"].toString(), QDir::toNativeSeparators(QDir::currentPath()));
    EXPECT_EQ(child.waitForFact("environment")["value"].toString(), "of the daemon");
    qunsetenv("RUVO_TEST_VARIABLE");
}

TEST(ChildLaunch, startsTheChildInItsWorkingDirectory)
{
    const QTemporaryDir directory;
    ProcessInfo info = test::childInfo({"--directory", "--wait"});
    info.workingDirectory = QDir::toNativeSeparators(directory.path());
    test::LaunchedChild child = test::LaunchedChild::of(launchChild(info));
    ASSERT_TRUE(child.launch());
    EXPECT_EQ(child.waitForFact("directory")["path"].toString(), info.workingDirectory);
}

TEST(ChildLaunch, startsAnExecutableWithSpacesAndPlaceMarkersInItsPath)
{
    const QTemporaryDir directory;
    const QString path = QDir::toNativeSeparators(directory.filePath("test child %1.exe"));
    ASSERT_TRUE(QFile::copy(test::testChildPath(), path));
    {
        ProcessInfo info = test::childInfo({"--command-line", "--wait", "--", "%1", "two words"});
        info.executable = path;
        test::LaunchedChild child = test::LaunchedChild::of(launchChild(info));
        ASSERT_TRUE(child.launch());
        EXPECT_EQ(child.waitForFact("command-line")["text"].toString(),
                  '"' + path + R"(" "--command-line" "--wait" "--" "%1" "two words")");
    }
}

TEST(ChildLaunch, passesQuotesAndBackslashesOnAsTheyAre)
{
    test::LaunchedChild child({"--command-line", "--arguments", "--wait", "--", R"(a"b c"d)", R"(e\)"});
    ASSERT_TRUE(child.launch());
    EXPECT_EQ(child.waitForFact("command-line")["text"].toString(),
              '"' + test::testChildPath() + R"(" "--command-line" "--arguments" "--wait" "--" "a"b c"d" "e\")");
}

TEST(ChildLaunch, saysThatAnExecutableCannotBeStarted)
{
    const std::size_t handles = test::countOwnHandles();
    const test::LogCapture log;
    ProcessInfo info = test::childInfo({});
    info.executable = "C:\\no such program.exe";
    EXPECT_FALSE(launchChild(info));
    EXPECT_EQ(log.lines().last(), "CRITICAL [ProcessManager] CreateProcess failed: 2");
    EXPECT_EQ(test::countOwnHandles(), handles);
}

} // namespace
} // namespace ruvo
