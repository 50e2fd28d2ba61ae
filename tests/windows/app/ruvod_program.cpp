// The inside of a RuvodProcess: runs the entry point as the process's first thread, plays Windows as the options
// say, takes controls from standard input and notes what happens as "@" lines on standard output.

#include "app/entry.h"

#include "common/log_category.h"
#include "daemon/ruvo_daemon.h"
#include "ipc/communication_server.h"
#include "ipc/session_listing.h"
#include "windows/support/call_journal.h"
#include "windows/support/child_process.h"
#include "windows/support/fake_service_manager.h"
#include "windows/support/fake_sessions.h"
#include "windows/support/signal.h"

#include <QCoreApplication>
#include <QStringList>

#include <winsock2.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace ruvo::test {

namespace {

using namespace std::chrono_literals;

/// How long the first thread gets to do what it must not.
constexpr auto slowDestructionTime = 500ms;

void note(const std::string &text)
{
    std::printf("@%s\n", text.c_str());
    std::fflush(stdout);
}

std::string resultText(std::optional<DWORD> result)
{
    return result ? std::to_string(*result) : "none";
}

class Options
{
public:
    explicit Options(const QStringList &arguments)
    {
        const qsizetype separator = arguments.indexOf("--");
        m_options = arguments.first(separator);
        m_ruvodArguments = QStringList{"ruvod.exe"} + arguments.sliced(separator + 1);
    }

    bool has(const QString &option) const { return m_options.contains(option); }
    QStringList values(const QString &name) const
    {
        QStringList values;
        for (const QString &option : m_options) {
            if (option.startsWith(name + u'='))
                values.append(option.mid(name.size() + 1));
        }
        return values;
    }
    const QStringList &ruvodArguments() const { return m_ruvodArguments; }

private:
    QStringList m_options;
    QStringList m_ruvodArguments;
};

/// What the first thread asks of Windows besides the dispatcher: it all works, unless an option says otherwise.
std::unique_ptr<CallJournal> watchFirstThread(const Options &options)
{
    auto journal = std::make_unique<CallJournal>();
    journal->watch<IMPORT(SetDefaultDllDirectories)>();
    journal->watch<IMPORT(SetProcessMitigationPolicy)>();
    journal->watch<IMPORT(WSAStartup)>(FailsWith::errorCode);
    journal->watch<IMPORT(WSACleanup)>(FailsWith::minusOne);
    journal->watch<IMPORT(CreateEventW)>();
    journal->watch<IMPORT(OpenSCManagerW)>([](auto...) { return reinterpret_cast<SC_HANDLE>(0x51); });
    journal->watch<IMPORT(CreateServiceW)>([](auto...) { return reinterpret_cast<SC_HANDLE>(0x52); });
    journal->watch<IMPORT(OpenServiceW)>([](auto...) { return reinterpret_cast<SC_HANDLE>(0x52); });
    journal->watch<IMPORT(SetServiceObjectSecurity)>([](auto...) { return TRUE; });
    journal->watch<IMPORT(ControlService)>([](auto...) { return TRUE; });
    journal->watch<IMPORT(DeleteService)>([](auto...) { return TRUE; });
    journal->watch<IMPORT(CloseServiceHandle)>([](auto...) { return TRUE; });
    journal->watch<IMPORT(StartServiceCtrlDispatcherW)>();
    for (const QString &failure : options.values("fail")) {
        const QStringList parts = failure.split(u':');
        journal->fail(parts[0].toStdString(), parts[1].toUInt());
    }
    return journal;
}

/// A listening side that does at its start what an option says.
class TestServer : public CommunicationServer
{
public:
    explicit TestServer(const Options &options)
        : CommunicationServer(activeSessions)
        , m_fails(options.has("start-fails"))
        , m_raises(options.has("start-raises"))
    {}

    bool start(const QString &serverName) override
    {
        if (m_raises)
            throw std::runtime_error("no");
        return !m_fails && CommunicationServer::start(serverName);
    }

private:
    const bool m_fails;
    const bool m_raises;
};

/// The thread that the daemon lives on.
std::atomic<DWORD> s_daemonThread = 0;

/// The daemon with what is noted around its destruction.
std::shared_ptr<RuvoDaemon> makeTestDaemon(const Options &options, FakeServiceManager &manager, Signal &entryReturned)
{
    s_daemonThread = GetCurrentThreadId();
    const bool late = options.has("late-controls");
    const bool slow = options.has("slow-destruction");
    return {new RuvoDaemon(std::make_unique<TestServer>(options)), [&, late, slow](RuvoDaemon *daemon) {
                note("destroying the daemon");
                if (late) {
                    note("late 128: " + resultText(manager.control(128)));
                    note("late stop: " + resultText(manager.control(SERVICE_CONTROL_STOP)));
                }
                delete daemon;
                if (slow && entryReturned.wait(slowDestructionTime))
                    note("the first thread did not wait");
                note("the daemon is gone");
            }};
}

/// Notes on which thread the daemon tells its clients to close, from the line that it logs.
auto watchBroadcast()
{
    using Redirection = ImportRedirection<IMPORT(WriteFile)>;
    return std::make_unique<Redirection>([next = Redirection::current()](HANDLE file, LPCVOID bytes, DWORD size,
                                                                         LPDWORD written, LPOVERLAPPED overlapped) {
        if (std::string_view(static_cast<const char *>(bytes), size).contains("Broadcasting shutdown request")) {
            const bool onItsThread = GetCurrentThreadId() == s_daemonThread;
            note(onItsThread ? "broadcast on the daemon's thread" : "broadcast on another thread");
        }
        return next(file, bytes, size, written, overlapped);
    });
}

/// A log that blocks for good where the first thread writes to it.
auto blockLogOfThisThread()
{
    using Redirection = ImportRedirection<IMPORT(CreateFileW)>;
    return std::make_unique<Redirection>(
        [next = Redirection::current(), thread = GetCurrentThreadId()](LPCWSTR path, auto... others) {
            if (GetCurrentThreadId() == thread && std::wstring_view(path).ends_with(L"ruvod.log"))
                Sleep(INFINITE);
            return next(path, others...);
        });
}

void logBeforeTheApplication()
{
    qCInfo(lcRuvod) << "logged while the application is made";
}

/// Held from a control to the note of its result, so that the process does not end between them.
std::mutex s_controlling;

/// "control N" for each line of standard input. Not through the C library: a thread that still waits in there when
/// the process ends would hold up its exit.
void takeControls(FakeServiceManager &manager)
{
    const HANDLE input = GetStdHandle(STD_INPUT_HANDLE);
    std::string received;
    char byte = 0;
    DWORD size = 0;
    while (ReadFile(input, &byte, 1, &size, nullptr) && size == 1) {
        if (byte != '\n') {
            received += byte;
            continue;
        }
        const DWORD code = static_cast<DWORD>(std::stoul(received.substr(sizeof("control"))));
        received.clear();
        const std::lock_guard lock(s_controlling);
        note("result " + resultText(manager.control(code)));
    }
}

int runRuvod(const QStringList &arguments)
{
    const Options options(arguments);
    std::vector<FakeSession> sessions;
    for (const QString &list : options.values("sessions")) {
        for (const QString &id : list.split(u','))
            sessions.push_back({id.toUInt()});
    }
    const FakeSessions terminalServices(sessions);

    FakeServiceManager manager(options.has("returns-when-stopped") ? FakeServiceManager::Returns::whenStopped
                                                                   : FakeServiceManager::Returns::afterServiceMain);
    for (const QString &error : options.values("dispatcher-error"))
        manager.refuseDispatcher(error.toUInt());
    manager.onReport([&, stop = options.has("stop-at-running")](const SERVICE_STATUS &status) {
        note("report " + reportText(status));
        if (stop && status.dwCurrentState == SERVICE_RUNNING)
            manager.post(SERVICE_CONTROL_STOP);
    });

    if (options.has("log-early"))
        qAddPreRoutine(logBeforeTheApplication);
    const auto broadcast = watchBroadcast();
    const auto blockedLog = options.has("first-thread-log-blocks") ? blockLogOfThisThread() : nullptr;
    Signal entryReturned;
    const auto journal = watchFirstThread(options);
    std::thread([&manager] { takeControls(manager); }).detach();

    std::vector<std::wstring> texts;
    for (const QString &argument : options.ruvodArguments())
        texts.push_back(argument.toStdWString());
    std::vector<wchar_t *> pointers;
    for (std::wstring &text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    const int status = runEntry(static_cast<int>(texts.size()), pointers.data(),
                                [&] { return makeTestDaemon(options, manager, entryReturned); });

    entryReturned.set();
    const std::lock_guard lock(s_controlling);
    note("the entry point has returned");
    for (const std::string &line : journal->lines())
        note("call " + line);
    return status;
}

const ChildProgram s_ruvod("ruvod", runRuvod);

} // namespace

} // namespace ruvo::test
