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

#include <QCoreApplication>
#include <QTimer>

#include <utility>

namespace ruvo {

RuvoDaemon::RuvoDaemon()
    : m_communicationServer(new CommunicationServer(activeSessions, this))
    , m_privilegeManager(new PrivilegeManager(this))
{
    RequestServices services;
    services.sendToClient = [this](const QString &clientId, const QJsonObject &message) {
        m_communicationServer->sendToClient(clientId, message);
    };
    services.updateHeartbeat = [this](const QString &clientId) { m_communicationServer->updateHeartbeat(clientId); };
    services.useLogFile = useLogFile;
    services.clearLogs = clearLogs;
    services.quit = requestQuit;
    m_dispatcher = new RequestDispatcher(std::move(services), this);

    connect(m_communicationServer, &CommunicationServer::messageReceived, this, &RuvoDaemon::handleClientMessage);
    connect(m_communicationServer, &CommunicationServer::clientConnected, this, &RuvoDaemon::onClientConnected);
    connect(m_communicationServer, &CommunicationServer::clientDisconnected, this,
            &RuvoDaemon::onClientDisconnected);
    connect(m_communicationServer, &CommunicationServer::clientTimedOut, this, &RuvoDaemon::onClientTimedOut);
}

RuvoDaemon::~RuvoDaemon() = default;

bool RuvoDaemon::start()
{
    qCInfo(lcRuvod) << "Starting ruvod daemon...";
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
    qCInfo(lcRuvod) << "Stopping ruvod daemon...";
    m_communicationServer->stop();
    // No loop runs any more that would delete the pipes and connections before "stopped" is reported.
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    qCInfo(lcRuvod) << "Daemon stopped";
}

void RuvoDaemon::handleClientMessage(const QString &clientId, const QJsonObject &message)
{
    m_dispatcher->handleClientMessage(clientId, message);
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
    qCInfo(lcRuvod) << "Client disconnected:" << clientId << "session:" << sessionId;
    qCInfo(lcRuvod) << "Remaining connected clients:" << m_communicationServer->clientCount();
    sweepStaleProcesses(clientId, sessionId);
}

void RuvoDaemon::onClientTimedOut(const QString &clientId, quint32 sessionId)
{
    sweepStaleProcesses(clientId, sessionId);
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

void RuvoDaemon::broadcastClientShutdown()
{
    qCInfo(lcRuvod) << "Broadcasting shutdown request to all connected clients (triggered by installer)";
    m_communicationServer->broadcast({{"event", "shutdown"}, {"reason", "installer-request"}});
}

} // namespace ruvo
