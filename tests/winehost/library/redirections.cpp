// Entry of the DLL. It comes into the program as a dependency of a substitute library, so it is there before the
// program's first instruction and can put right where Wine differs from Windows.

#include "journal.h"
#include "redirect.h"
#include "substitutes.h"

namespace ruvo::winehost {

namespace {

template<typename Function>
const void *address(Function *function)
{
    return reinterpret_cast<const void *>(function);
}

const Redirection redirections[] = {
    // Written down, passed on unchanged.
    {"advapi32.dll", "SetServiceStatus", address(setServiceStatus)},
    {"advapi32.dll", "SetServiceObjectSecurity", address(setServiceObjectSecurity)},
    // Written down, passed on unless a test has planned a failure.
    {"advapi32.dll", "RegOpenKeyExW", address(regOpenKeyEx)},
    {"advapi32.dll", "RegSetValueExA", address(regSetValueExA)},
    {"kernel32.dll", "CreateIoCompletionPort", address(createIoCompletionPort)},
    {"kernel32.dll", "GetProcAddress", address(getProcAddress)},
    {"ole32.dll", "CoInitializeEx", address(coInitializeEx)},
    {"ole32.dll", "CoUninitialize", address(coUninitialize)},
    // Wine's Windows Firewall takes every rule and keeps none.
    {"ole32.dll", "CoCreateInstance", address(coCreateInstance)},
    // Passed on unless a test has planned a failure.
    {"ws2_32.dll", "WSASocketW", address(openSocket)},
    {"ws2_32.dll", "listen", address(listenOnSocket)},
    // Wine appends to a file in two steps.
    {"kernel32.dll", "WriteFile", address(writeFile)},
    // Linux ignores IP_UNICAST_IF.
    {"ws2_32.dll", "setsockopt", address(setSocketOption)},
    // The sockets of Wine's programs are its server's: the tables of owners would not know whose they are.
    {"ws2_32.dll", "bind", address(bindSocket)},
    // That too, and the kernel cannot tell Wine's programs apart: the filters are asked here.
    {"ws2_32.dll", "connect", address(connectSocket)},
    {"ws2_32.dll", "WSAConnect", address(connectSocketByProvider)},
    {"ws2_32.dll", "WSAIoctl", address(controlSocket)},
    {"ws2_32.dll", "sendto", address(sendDatagram)},
    {"ws2_32.dll", "WSASendTo", address(sendDatagramParts)},
    {"kernel32.dll", "OpenProcess", address(openProcess)},
    {"kernel32.dll", "QueryFullProcessImageNameW", address(queryFullProcessImageName)},
    {"kernel32.dll", "CloseHandle", address(closeHandle)},
    // Windows ignores CREATE_NEW_PROCESS_GROUP beside CREATE_NEW_CONSOLE; Wine starts the child with Ctrl+C off.
    {"kernel32.dll", "CreateProcessW", address(createProcess)},
    // Group 0 is every process of the console; Wine's is the caller's own group.
    {"kernel32.dll", "GenerateConsoleCtrlEvent", address(generateConsoleCtrlEvent)},
    // All of Wine's processes are in session 1.
    {"kernel32.dll", "ProcessIdToSessionId", address(processIdToSessionId)},
};

void redirectAndReport()
{
    JournalEntry entry("attached");
    entry.add("command-line", GetCommandLineW()).add("redirected", redirectImports(redirections));
}

} // namespace

} // namespace ruvo::winehost

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID)
{
    if (reason == DLL_PROCESS_ATTACH)
        ruvo::winehost::redirectAndReport();
    return TRUE;
}
