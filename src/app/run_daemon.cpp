#include "app/run_daemon.h"

#include "app/command_line.h"
#include "app/windows_service.h"
#include "common/log_category.h"
#include "common/version.h"
#include "daemon/daemon_log.h"
#include "daemon/ruvo_daemon.h"

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QScopeGuard>

namespace ruvo {

namespace {

/// The installer's "SERVICE_CONTROL_SHUTDOWN_CLIENTS": clients close themselves before files are replaced.
constexpr DWORD shutdownClientsControl = 128;

/// The running daemon. Used on the service thread only: it makes the shutdown run once.
RuvoDaemon *s_daemon = nullptr;

void onCustomControl(DWORD control, RuvoDaemon *daemon)
{
    if (control != shutdownClientsControl)
        return;
    qCInfo(lcRuvod) << "Received SERVICE_CONTROL_SHUTDOWN_CLIENTS from installer";
    QMetaObject::invokeMethod(daemon, &RuvoDaemon::broadcastClientShutdown, Qt::QueuedConnection);
}

/// Ends the calls of the control handler before the daemon that they reach is destroyed, however it ends.
class ControlCallbackGuard
{
public:
    explicit ControlCallbackGuard(WindowsService &service) : m_service(service) {}
    ~ControlCallbackGuard() { m_service.clearControlCallbacks(); }
    ControlCallbackGuard(const ControlCallbackGuard &) = delete;
    ControlCallbackGuard &operator=(const ControlCallbackGuard &) = delete;

private:
    WindowsService &m_service;
};

void serveUntilQuit(WindowsService &service)
{
    qCInfo(lcRuvod) << "Daemon ready for connections";
    service.reportRunning();
    QCoreApplication::exec();
    if (s_daemon) {
        qCInfo(lcRuvod) << "Event loop exited, stopping daemon...";
        s_daemon->stop();
        s_daemon = nullptr;
    }
    qCInfo(lcRuvod) << "Daemon cleanup complete, reporting service stopped";
    service.reportStopped();
}

} // namespace

void runDaemon(int argc, wchar_t **argv)
{
    Utf8Arguments arguments(argc, argv);
    installDaemonLog();
    QCoreApplication application(arguments.argc(), arguments.argv());
    QCoreApplication::setApplicationName("ruvod");
    QCoreApplication::setApplicationVersion(version);
    QCoreApplication::setOrganizationName("Ruvo");
    processCommandLine(arguments.toStringList());
    QLoggingCategory::setFilterRules("ruvod.debug=false");

    WindowsService &service = WindowsService::instance();
    RuvoDaemon daemon;
    s_daemon = &daemon;
    const auto forgetDaemon = qScopeGuard([] { s_daemon = nullptr; });
    const ControlCallbackGuard guard(service);
    service.setCustomControlCallback([&daemon](DWORD control) { onCustomControl(control, &daemon); });
    if (daemon.start())
        serveUntilQuit(service);
    else
        qCCritical(lcRuvod) << "Failed to start daemon";
}

} // namespace ruvo
