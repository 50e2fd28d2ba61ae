#include "app/entry.h"

#include "app/process_hardening.h"
#include "app/windows_service.h"
#include "app/winsock.h"
#include "common/log_category.h"
#include "common/quit.h"
#include "daemon/daemon_log.h"

#include <cstdio>
#include <exception>
#include <string_view>

namespace ruvo {

namespace {

constexpr wchar_t serviceName[] = L"RuvoService";
constexpr wchar_t displayName[] = L"Ruvo Proxy Client Service";

int registerAndReport()
{
    try {
        WindowsService::initialize(serviceName, displayName);
        WindowsService::instance().registerService();
    } catch (const std::exception &error) {
        std::fprintf(stderr, "Failed to register service: %s\n", error.what());
        return 1;
    }
    std::wprintf(L"Service registered successfully\n");
    return 0;
}

int unregisterAndReport()
{
    try {
        WindowsService::initialize(serviceName, displayName);
        WindowsService::instance().unregisterService();
    } catch (const std::exception &error) {
        std::fprintf(stderr, "Failed to unregister service: %s\n", error.what());
        return 1;
    }
    std::wprintf(L"Service unregistered successfully\n");
    return 0;
}

// Runs on the first thread. The service takes stop controls only once it reports that it runs, so the
// application exists by then, and WindowsService calls this no more once the daemon's thread is done.
// Logs there: a log that blocks would hold up the one who takes controls.
void requestStop()
{
    requestQuitAndThen([] { qCInfo(lcRuvod) << "Service stop requested, quitting event loop..."; });
}

int serve(int argc, wchar_t **argv, const DaemonFactory &make)
{
    try {
        WindowsService::initialize(serviceName, displayName);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
    WindowsService &service = WindowsService::instance();
    service.setRunCallback([argc, argv, make] { runDaemon(argc, argv, make); });
    service.setStopCallback(requestStop);
    return service.run();
}

} // namespace

int runEntry(int argc, wchar_t **argv, const DaemonFactory &make)
{
    hardenProcess();
    const Winsock winsock;
    if (winsock.error() != 0) {
        // The daemon, which installs it otherwise, is not reached; without it nobody would see this line.
        installDaemonLog();
        qCCritical(lcRuvod) << "WSAStartup failed:" << winsock.error();
        return 1;
    }

    const std::wstring_view mode = argc > 1 ? argv[1] : L"";
    if (mode == L"--register")
        return registerAndReport();
    if (mode == L"--unregister")
        return unregisterAndReport();
    return serve(argc, argv, make);
}

} // namespace ruvo
