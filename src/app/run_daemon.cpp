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

// Runs on the first thread, which must not log: a log that blocks would hold up the one who takes controls.
void onCustomControl(DWORD control, RuvoDaemon *daemon)
{
    if (control != shutdownClientsControl)
        return;
    QMetaObject::invokeMethod(
        daemon,
        [daemon] {
            qCInfo(lcRuvod) << "Received SERVICE_CONTROL_SHUTDOWN_CLIENTS from installer";
            daemon->broadcastClientShutdown();
        },
        Qt::QueuedConnection);
}

void serveUntilQuit(WindowsService &service, RuvoDaemon &daemon)
{
    qCInfo(lcRuvod) << "Daemon ready for connections";
    service.reportRunning();
    QCoreApplication::exec();
    qCInfo(lcRuvod) << "Event loop exited, stopping daemon...";
    daemon.stop();
    qCInfo(lcRuvod) << "Daemon cleanup complete, reporting service stopped";
    service.reportStopped();
}

} // namespace

std::shared_ptr<RuvoDaemon> makeDaemon()
{
    return std::make_shared<RuvoDaemon>();
}

void runDaemon(int argc, wchar_t **argv, const DaemonFactory &make)
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
    const std::shared_ptr<RuvoDaemon> daemon = make();
    // Before the daemon that they reach is destroyed, however it ends.
    const auto endControls = qScopeGuard([&service] { service.clearControlCallbacks(); });
    service.setCustomControlCallback([&daemon](DWORD control) { onCustomControl(control, daemon.get()); });
    if (daemon->start())
        serveUntilQuit(service, *daemon);
    else
        qCCritical(lcRuvod) << "Failed to start daemon";
}

} // namespace ruvo
