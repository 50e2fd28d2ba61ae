#include "daemon/ruvo_daemon.h"

#include "common/log_category.h"
#include "common/quit.h"
#include "common/version.h"
#include "daemon/daemon_log.h"
#include "daemon/privilege_manager.h"
#include "daemon/request_dispatcher.h"
#include "daemon/stale_processes.h"
#include "ipc/communication_server.h"
#include "ipc/session_listing.h"
#include "process/process_manager.h"
#include "tun/ruvo_tun_manager.h"

#include <QCoreApplication>
#include <QTimer>

#include <utility>

namespace ruvo {

namespace {

constexpr int processGracePeriod = 10000; // ms

CommunicationServer *adopted(std::unique_ptr<CommunicationServer> server, QObject *parent)
{
    server->setParent(parent);
    return server.release();
}

} // namespace

RuvoDaemon::RuvoDaemon() : RuvoDaemon(std::make_unique<CommunicationServer>(activeSessions)) {}

RuvoDaemon::RuvoDaemon(std::unique_ptr<CommunicationServer> server)
    : m_processManager(new ProcessManager(this))
    , m_communicationServer(adopted(std::move(server), this))
    , m_privilegeManager(new PrivilegeManager(this))
    , m_tunManager(new RuvoTunManager(this))
    , m_dispatcher(new RequestDispatcher(requestServices(), m_ownership, this))
    , m_requests(new RequestQueue(queueServices(), this))
{
    m_communicationServer->setBusyClients([this](const QString &clientId) { return m_requests->isBusy(clientId); });
    connect(m_communicationServer, &CommunicationServer::messageReceived, this, &RuvoDaemon::handleClientMessage);
    connect(m_communicationServer, &CommunicationServer::clientConnected, this, &RuvoDaemon::onClientConnected);
    connect(m_communicationServer, &CommunicationServer::clientDisconnected, this, &RuvoDaemon::onClientDisconnected);
    connect(m_communicationServer, &CommunicationServer::clientTimedOut, this, &RuvoDaemon::onClientTimedOut);
    // In this order: the owner gets the "finished" event before it stops being the owner.
    connect(m_processManager, &ProcessManager::processEvent, this, &RuvoDaemon::broadcastProcessEvent);
    connect(m_processManager, &ProcessManager::processEvent, this, &RuvoDaemon::removeFinishedProcess);
    connect(m_tunManager, &RuvoTunManager::proxyHealthCheckFailed, this, &RuvoDaemon::broadcastServerDead);
}

RequestServices RuvoDaemon::requestServices()
{
    RequestServices services;
    services.sendToClient = [this](const QString &clientId, const QJsonObject &message) {
        m_communicationServer->sendToClient(clientId, message);
    };
    services.updateHeartbeat = [this](const QString &clientId) { m_communicationServer->updateHeartbeat(clientId); };
    services.useLogFile = useLogFile;
    services.clearLogs = clearLogs;
    services.quit = requestQuit;
    services.isStopping = [this] { return m_stopping || quitRequested(); };
    services.startProcess = [this](const QJsonObject &spec) { return m_processManager->startProcess(spec); };
    services.stopProcess = [this](const QString &id) { return m_processManager->stopProcess(id); };
    services.killProcess = [this](const QString &id) { return m_processManager->killProcess(id); };
    services.restartProcess = [this](const QString &id) { return m_processManager->restartProcess(id); };
    services.processStatus = [this](const QString &id) { return m_processManager->getProcessStatus(id); };
    services.listProcesses = [this] { return m_processManager->listProcesses(); };
    services.writeToProcess = [this](const QString &id, const QByteArray &data) {
        return m_processManager->writeToProcess(id, data);
    };
    services.startTun = [this](const QJsonObject &config) { return m_tunManager->start(config); };
    services.stopTun = [this] { return m_tunManager->stop(); };
    services.tunStatus = [this] { return m_tunManager->status(); };
    services.flushDnsCache = [this] { m_tunManager->flushDnsCache(); };
    services.resetConnections = [this] { m_tunManager->resetConnections(); };
    return services;
}

RequestQueue::Services RuvoDaemon::queueServices()
{
    RequestQueue::Services services;
    services.handle = [this](const QString &clientId, const QJsonObject &message) {
        m_dispatcher->handleClientMessage(clientId, message);
    };
    services.holdBack = [this](const QString &clientId, bool held) {
        m_communicationServer->holdBack(clientId, held);
    };
    return services;
}

RuvoDaemon::~RuvoDaemon() = default;

bool RuvoDaemon::start()
{
    qCInfo(lcRuvod) << "Starting ruvod daemon...";
    m_tunManager->removeLeftovers();
    if (!m_communicationServer->start("ruvod")) {
        qCCritical(lcRuvod) << "Failed to start communication server";
        return false;
    }
    qCInfo(lcRuvod) << "Daemon started successfully";
    qCDebug(lcRuvod) << "Privilege level:" << PrivilegeManager::privilegeLevel();
    return true;
}

void RuvoDaemon::stop()
{
    m_stopping = true;
    m_communicationServer->refuseNewClients();
    qCInfo(lcRuvod) << "Stopping ruvod daemon...";
    if (m_tunManager->isStarted()) {
        qCInfo(lcRuvod) << "Stopping TUN...";
        m_tunManager->stop();
    }
    m_processManager->stopAll(processGracePeriod);
    // No loop runs any more that would.
    m_requests->finishDepartures();
    sweepPendingSessions();
    m_communicationServer->stop();
    // No loop runs any more that would delete the pipes and connections before "stopped" is reported.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    qCInfo(lcRuvod) << "Daemon stopped";
}

void RuvoDaemon::handleClientMessage(const QString &clientId, const QJsonObject &message)
{
    m_requests->add(clientId, message, m_communicationServer->messageSize(clientId));
}

void RuvoDaemon::onClientConnected(const QString &clientId)
{
    m_communicationServer->sendToClient(clientId, {
                                                      {"event", "connected"},
                                                      {"daemon-version", QString::fromLatin1(version)},
                                                      {"privilege-level", PrivilegeManager::privilegeLevel()},
                                                  });
}

void RuvoDaemon::onClientDisconnected(const QString &clientId, quint32 sessionId)
{
    m_requests->addDeparture(clientId, [this, clientId, sessionId] {
        qCInfo(lcRuvod) << "Client disconnected:" << clientId << "session:" << sessionId;
        qCInfo(lcRuvod) << "Remaining connected clients:" << m_communicationServer->clientCount();
        stopTunIfUnused();
        stopProcessesOf(clientId, "(owned by disconnected client");
        sweepStaleProcesses(clientId, sessionId);
    });
}

void RuvoDaemon::onClientTimedOut(const QString &clientId, quint32 sessionId)
{
    m_requests->addDeparture(clientId, [this, clientId, sessionId] {
        stopTunIfUnused();
        stopProcessesOf(clientId, "(owned by timed-out client");
        sweepStaleProcesses(clientId, sessionId);
    });
}

// The tunnel is everybody's: the last client to leave takes it down.
void RuvoDaemon::stopTunIfUnused()
{
    if (!m_tunManager->isStarted())
        return;
    if (m_communicationServer->clientCount() > 0)
        qCInfo(lcRuvod) << "TUN still running - other clients are connected";
    else
        m_tunManager->stop();
}

void RuvoDaemon::stopProcessesOf(const QString &clientId, const char *reason)
{
    const QStringList owned = m_ownership.ownedBy(clientId);
    for (const QString &processId : owned) {
        qCInfo(lcRuvod) << "Stopping process" << processId << reason << clientId << ")";
        m_processManager->stopProcess(processId);
        m_ownership.remove(processId);
    }
}

void RuvoDaemon::sweepStaleProcesses(const QString &clientId, quint32 sessionId)
{
    if (sessionId == 0) {
        qCInfo(lcRuvod) << "Client" << clientId << "has sessionId=0, cannot check for stale processes";
        return;
    }
    if (m_sessionsToSweep.isEmpty())
        QTimer::singleShot(0, this, &RuvoDaemon::sweepPendingSessions);
    m_sessionsToSweep.insert(sessionId);
}

void RuvoDaemon::sweepPendingSessions()
{
    for (const quint32 sessionId : std::exchange(m_sessionsToSweep, {}))
        killStaleProcesses(sessionId);
}

void RuvoDaemon::broadcastProcessEvent(const QJsonObject &event)
{
    const QString processId = event["process-id"].toString();
    const std::optional<QString> owner = m_ownership.owner(processId);
    if (!owner) {
        qCDebug(lcRuvod) << "Process event for unowned process" << processId << "- not sending to any client";
        return;
    }
    qCDebug(lcRuvod) << "Sending process event to owner client" << *owner << "for process" << processId
                     << "event:" << event["event"].toString();
    m_communicationServer->sendToClient(*owner, event);
}

void RuvoDaemon::removeFinishedProcess(const QJsonObject &event)
{
    if (event["event"].toString() != QLatin1StringView("finished"))
        return;
    onProcessFinished(event["process-id"].toString(), event["data"].toString().toInt(), QProcess::NormalExit);
}

void RuvoDaemon::onProcessFinished(const QString &processId, int exitCode, QProcess::ExitStatus)
{
    const std::optional<QString> owner = m_ownership.owner(processId);
    if (!owner)
        return;
    qCDebug(lcRuvod) << "Process" << processId << "finished (exit code" << exitCode
                     << "), removing ownership tracking (was owned by client" << *owner << ")";
    m_ownership.remove(processId);
}

void RuvoDaemon::broadcastServerDead()
{
    m_communicationServer->broadcast({{"event", "server-dead"}});
}

void RuvoDaemon::broadcastClientShutdown()
{
    qCInfo(lcRuvod) << "Broadcasting shutdown request to all connected clients (triggered by installer)";
    m_communicationServer->broadcast({{"event", "shutdown"}, {"reason", "installer-request"}});
}

} // namespace ruvo
