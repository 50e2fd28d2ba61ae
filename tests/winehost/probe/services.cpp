#include "probe.h"

#include "library/json_line.h"
#include "library/text.h"

#include "common/windows_handles.h"

#include <cstdio>
#include <utility>

namespace ruvo::winehost {

namespace {

int print(const JsonLine &line, int status)
{
    std::puts(line.text().c_str());
    std::fflush(stdout);
    return status;
}

int failed(const char *call)
{
    JsonLine line;
    line.add("error", GetLastError()).add("call", call);
    return print(line, 1);
}

ServiceHandle openService(const std::wstring &name, DWORD access)
{
    const ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    return ServiceHandle(manager ? OpenServiceW(manager.get(), name.c_str(), access) : nullptr);
}

} // namespace

int describeService(const Arguments &arguments)
{
    const ServiceHandle service = openService(arguments[0], SERVICE_QUERY_CONFIG | SERVICE_QUERY_STATUS);
    if (!service)
        return failed("OpenServiceW");
    DWORD size = 0;
    QueryServiceConfigW(service.get(), nullptr, 0, &size);
    std::vector<char> buffer(size);
    auto *config = static_cast<QUERY_SERVICE_CONFIGW *>(static_cast<void *>(buffer.data()));
    if (size == 0 || !QueryServiceConfigW(service.get(), config, size, &size))
        return failed("QueryServiceConfigW");
    SERVICE_STATUS_PROCESS status{};
    if (!QueryServiceStatusEx(service.get(), SC_STATUS_PROCESS_INFO,
                              static_cast<BYTE *>(static_cast<void *>(&status)), sizeof status, &size))
        return failed("QueryServiceStatusEx");
    JsonLine line;
    line.add("type", config->dwServiceType)
        .add("start-type", config->dwStartType)
        .add("error-control", config->dwErrorControl)
        .add("path", config->lpBinaryPathName)
        .add("account", config->lpServiceStartName)
        .add("display-name", config->lpDisplayName)
        .add("load-order-group", config->lpLoadOrderGroup)
        .add("dependencies", config->lpDependencies)
        .add("state", status.dwCurrentState)
        .add("controls", status.dwControlsAccepted)
        .add("exit-code", status.dwWin32ExitCode)
        .add("pid", status.dwProcessId);
    return print(line, 0);
}

int startService(const Arguments &arguments)
{
    const ServiceHandle service = openService(arguments[0], SERVICE_START | SERVICE_STOP | SERVICE_QUERY_STATUS);
    bool stopWhenRunning = arguments.size() > 2 && arguments[2] == L"stop";
    if (!service)
        return failed("OpenServiceW");
    if (!StartServiceW(service.get(), 0, nullptr))
        return failed("StartServiceW");
    const ULONGLONG deadline = GetTickCount64() + toNumber(toUtf8(arguments[1])).value_or(0);
    DWORD last = 0;
    while (GetTickCount64() < deadline) {
        SERVICE_STATUS status{};
        if (!QueryServiceStatus(service.get(), &status))
            return failed("QueryServiceStatus");
        if (status.dwCurrentState != last)
            print(JsonLine().add("state", status.dwCurrentState), 0);
        last = status.dwCurrentState;
        if (last == SERVICE_RUNNING && std::exchange(stopWhenRunning, false)) {
            if (!ControlService(service.get(), SERVICE_CONTROL_STOP, &status))
                return failed("ControlService");
        } else if (last == SERVICE_STOPPED || (last == SERVICE_RUNNING && arguments.size() == 2)) {
            return 0;
        }
        SwitchToThread();
    }
    return print(JsonLine().add("error", DWORD{ERROR_TIMEOUT}).add("call", "StartServiceW"), 1);
}

int controlService(const Arguments &arguments)
{
    const DWORD code = toNumber(toUtf8(arguments[1])).value_or(0); // 0 is refused by the manager
    const DWORD access = code == SERVICE_CONTROL_STOP ? SERVICE_STOP : SERVICE_USER_DEFINED_CONTROL;
    const ServiceHandle service = openService(arguments[0], access);
    if (!service)
        return failed("OpenServiceW");
    SERVICE_STATUS status{};
    if (!ControlService(service.get(), code, &status))
        return failed("ControlService");
    return print(JsonLine().add("state", status.dwCurrentState), 0);
}

} // namespace ruvo::winehost
