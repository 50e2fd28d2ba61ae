// A launch that fails at each of its Windows calls in turn leaves nothing open and says where it failed.

#include "process/child_launch.h"

#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "windows/process/child.h"
#include "windows/support/call_journal.h"
#include "windows/support/own_resources.h"

#include <gtest/gtest.h>

#include <QHash>

namespace ruvo {
namespace {

constexpr DWORD someError = 1234;

/// The calls of a launch in order, with the pipes' ends by name.
class LaunchCalls
{
public:
    LaunchCalls()
    {
        const auto createPipe = test::ImportRedirection<IMPORT(CreatePipe)>::current();
        journal.watch<IMPORT(CreatePipe)>(
            [this, createPipe](PHANDLE read, PHANDLE write, LPSECURITY_ATTRIBUTES security, DWORD size) {
                EXPECT_EQ(security->nLength, 24u);
                EXPECT_EQ(security->lpSecurityDescriptor, nullptr);
                EXPECT_EQ(security->bInheritHandle, TRUE);
                const BOOL created = createPipe(read, write, security, size);
                m_names[*read] = m_streams.value(m_pipes) + "Read";
                m_names[*write] = m_streams.value(m_pipes) + "Write";
                calls.append("CreatePipe " + m_streams.value(m_pipes) + ' ' + QString::number(size));
                ++m_pipes;
                return created;
            });
        const auto setInformation = test::ImportRedirection<IMPORT(SetHandleInformation)>::current();
        journal.watch<IMPORT(SetHandleInformation)>([this, setInformation](HANDLE handle, DWORD mask, DWORD flags) {
            calls.append(QString("SetHandleInformation %1 %2 %3").arg(m_names[handle]).arg(mask).arg(flags));
            return setInformation(handle, mask, flags);
        });
        const auto createProcess = test::ImportRedirection<IMPORT(CreateProcessW)>::current();
        journal.watch<IMPORT(CreateProcessW)>([this, createProcess](auto... arguments) {
            calls.append("CreateProcessW");
            return createProcess(arguments...);
        });
    }

    QStringList openEnds() const
    {
        QStringList names = m_names.values();
        names.sort();
        return names;
    }
    void clear()
    {
        calls.clear();
        m_names.clear();
        m_pipes = 0;
    }

    test::CallJournal journal;
    QStringList calls;

private:
    BOOL close(HANDLE handle)
    {
        // One that is closed twice is closed once as somebody else's.
        if (m_names.contains(handle))
            calls.append("CloseHandle " + m_names.take(handle));
        return m_closeHandle.real(handle);
    }

    const QStringList m_streams = {"stdin", "stdout", "stderr"};
    qsizetype m_pipes = 0;
    QHash<HANDLE, QString> m_names;
    const test::ImportRedirection<IMPORT(CloseHandle)> m_closeHandle{[this](HANDLE handle) { return close(handle); }};
};

TEST(ChildLaunchFailure, doesNotHappenInThisOrderOfCalls)
{
    LaunchCalls calls;
    {
        const test::LaunchedChild child({"--wait"});
        ASSERT_TRUE(child.launch());
        EXPECT_EQ(calls.calls, QStringList({
                                   "CreatePipe stdin 0",
                                   "SetHandleInformation stdinWrite 1 0",
                                   "CreatePipe stdout 0",
                                   "SetHandleInformation stdoutRead 1 0",
                                   "CreatePipe stderr 0",
                                   "SetHandleInformation stderrRead 1 0",
                                   "CreateProcessW",
                                   "CloseHandle stdinRead",
                                   "CloseHandle stdoutWrite",
                                   "CloseHandle stderrWrite",
                               }));
        EXPECT_EQ(calls.openEnds(), QStringList({"stderrRead", "stdinWrite", "stdoutRead"}));
    }
    EXPECT_EQ(calls.openEnds(), QStringList());
}

TEST(ChildLaunchFailure, closesWhatWasOpenedAndTellsTheStepAndTheError)
{
    const QString critical = "CRITICAL [ProcessManager] ";
    const QStringList expected = {
        critical + "Failed to create stdin pipe: 1234",  critical + "Failed to create stdin pipe: 1234",
        critical + "Failed to create stdout pipe: 1234", critical + "Failed to create stdout pipe: 1234",
        critical + "Failed to create stderr pipe: 1234", critical + "Failed to create stderr pipe: 1234",
        critical + "CreateProcess failed: 1234",
    };

    test::LogCapture log;
    LaunchCalls calls;
    { // what logging and GoogleTest open for themselves at first
        SCOPED_TRACE("");
        calls.journal.fail("CreatePipe", someError);
        EXPECT_FALSE(launchChild(test::childInfo({})));
    }
    const std::size_t handles = test::countOwnHandles();
    qsizetype run = 0;
    test::forEachFailure(calls.journal, someError, [&] {
        SCOPED_TRACE("failing call " + std::to_string(run + 1));
        log.clear();
        calls.clear();
        const test::LaunchedChild child({"--wait"});
        if (run == expected.size()) {
            EXPECT_TRUE(child.launch());
            return;
        }
        EXPECT_FALSE(child.launch());
        EXPECT_EQ(log.linesWith("CRITICAL"), QStringList({expected[run]}));
        EXPECT_EQ(log.linesWith("WARNING"), QStringList());
        EXPECT_EQ(calls.openEnds(), QStringList());
        EXPECT_EQ(test::countOwnHandles(), handles);
        ++run;
    });
    EXPECT_EQ(run, expected.size());
}

TEST(ChildLaunchFailure, atCreateProcessClosesTheChildsEndsFirst)
{
    LaunchCalls calls;
    calls.journal.fail("CreateProcessW", someError);
    EXPECT_FALSE(launchChild(test::childInfo({})));
    EXPECT_EQ(calls.calls.mid(6, 3), QStringList({
                                         "CloseHandle stdinRead",
                                         "CloseHandle stdoutWrite",
                                         "CloseHandle stderrWrite",
                                     }));
    EXPECT_EQ(calls.calls.size(), 12);
}

} // namespace
} // namespace ruvo
