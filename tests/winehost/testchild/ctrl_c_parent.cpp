// ctrl_c_parent: starts a program, sends Ctrl+C to its console once it has printed a line with a given text, and
// tells what came of it. The tests of the bench's own programs have no service that would do it.
//   ctrl_c_parent FLAGS 0|child TEXT MS COMMAND...
// FLAGS go to CreateProcessW; the event goes to group 0 or to the child's id; the child has MS to end. Prints the
// child's output, then a line {"sent": …, "ended": …, "code": …}.

#include "common/windows_handles.h"

#include "library/json_line.h"
#include "library/text.h"
#include "output.h"

#include <string>

namespace ruvo::winehost {

namespace {

struct Child
{
    KernelHandle process;
    ruvo::KernelHandle output;
    DWORD pid = 0;
};

Child start(std::wstring commandLine, DWORD flags)
{
    SECURITY_ATTRIBUTES inheritable{sizeof inheritable, nullptr, TRUE};
    KernelHandle readEnd, writeEnd;
    if (!CreatePipe(readEnd.out(), writeEnd.out(), &inheritable, 0))
        return {};
    SetHandleInformation(readEnd.get(), HANDLE_FLAG_INHERIT, 0);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES | STARTF_USESHOWWINDOW;
    startup.hStdOutput = writeEnd.get();
    startup.hStdError = writeEnd.get();
    PROCESS_INFORMATION process{};
    if (!CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, flags, nullptr, nullptr, &startup,
                        &process))
        return {};
    const KernelHandle thread(process.hThread);
    return {KernelHandle(process.hProcess), std::move(readEnd), process.dwProcessId};
}

/// Passes output on, up to a line that contains `last` or to its end.
void passOn(HANDLE output, HANDLE to, const std::string *last)
{
    std::string line;
    char byte = 0;
    DWORD received = 0;
    while (ReadFile(output, &byte, 1, &received, nullptr) && received == 1) {
        writeAll(to, {&byte, 1});
        line += byte;
        if (byte != '\n')
            continue;
        if (last && line.find(*last) != std::string::npos)
            return;
        line.clear();
    }
}

bool sendInterrupt(const Child &child, DWORD group)
{
    FreeConsole();
    // The console may not be ready yet; once the child is gone it never will be.
    while (!AttachConsole(child.pid)) {
        if (WaitForSingleObject(child.process.get(), 50) == WAIT_OBJECT_0)
            return false;
    }
    SetConsoleCtrlHandler(nullptr, TRUE);
    const BOOL sent = GenerateConsoleCtrlEvent(CTRL_C_EVENT, group);
    FreeConsole();
    return sent != FALSE;
}

} // namespace

} // namespace ruvo::winehost

int wmain(int count, wchar_t **values)
{
    using namespace ruvo::winehost;
    if (count < 6) {
        writeAll(handleOf(Stream::Error), "usage: ctrl_c_parent FLAGS 0|child TEXT MS COMMAND...\n");
        return 2;
    }
    // Attaching to a console replaces the standard handles and detaching closes them.
    ruvo::KernelHandle output;
    DuplicateHandle(GetCurrentProcess(), handleOf(Stream::Output), GetCurrentProcess(), output.out(), 0, FALSE,
                    DUPLICATE_SAME_ACCESS);
    std::wstring commandLine;
    for (int index = 5; index < count; ++index)
        commandLine += (index > 5 ? L" \"" : L"\"") + std::wstring(values[index]) + L'"';
    const Child child = start(commandLine, wcstoul(values[1], nullptr, 0));
    if (!child.process) {
        const std::string error = std::to_string(GetLastError());
        writeAll(handleOf(Stream::Error), "ctrl_c_parent: cannot start the program: error " + error + '\n');
        return 2;
    }
    const std::string ready = toUtf8(values[3]);
    passOn(child.output.get(), output.get(), &ready);
    const bool sent = sendInterrupt(child, std::wstring_view(values[2]) == L"child" ? child.pid : 0);
    const bool ended = WaitForSingleObject(child.process.get(), wcstoul(values[4], nullptr, 0)) == WAIT_OBJECT_0;
    DWORD code = 0;
    GetExitCodeProcess(child.process.get(), &code);
    if (!ended)
        TerminateProcess(child.process.get(), 1);
    passOn(child.output.get(), output.get(), nullptr);
    JsonLine line;
    line.add("sent", sent).add("ended", ended).add("code", code);
    writeAll(output.get(), line.text() + '\n');
    return 0;
}
