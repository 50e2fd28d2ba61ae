#include "ipc/communication_server.h"

#include "common/log_category.h"

#include <algorithm>
#include <utility>

namespace ruvo {

CommunicationServer::CommunicationServer(SessionLister listSessions, QObject *parent, Clock clock)
    : QObject(parent), m_listSessions(std::move(listSessions)), m_clock(std::move(clock))
{
    connect(&m_heartbeatTimer, &QTimer::timeout, this, &CommunicationServer::checkHeartbeats);
    connect(&m_sessionPollTimer, &QTimer::timeout, this, &CommunicationServer::pollSessions);
    armHeartbeatCheck(m_clock());
}

CommunicationServer::~CommunicationServer() = default;

CommunicationServer::Clock CommunicationServer::monotonicClock()
{
    return
        [] { return std::chrono::duration_cast<Milliseconds>(std::chrono::steady_clock::now().time_since_epoch()); };
}

bool CommunicationServer::start(const QString &serverName)
{
    m_serverName = serverName;
    pollSessions();
    m_sessionPollTimer.start(sessionPollInterval);
    qCDebug(lcRuvod) << "Session polling started (every 3 seconds)";
    return true;
}

void CommunicationServer::stop()
{
    m_heartbeatTimer.stop();
    for (ClientConnection *client : std::as_const(m_clients)) {
        client->disconnect(this);
        client->deleteLater();
    }
    m_clients.clear();
    m_heartbeats.clear();
    m_sessionPollTimer.stop();
    for (SessionServer *server : std::as_const(m_sessionServers)) {
        server->disconnect(this);
        server->deleteLater();
    }
    m_sessionServers.clear();
}

void CommunicationServer::sendToClient(const QString &clientId, const QJsonObject &message)
{
    if (ClientConnection *client = m_clients.value(clientId))
        client->send(message);
}

void CommunicationServer::broadcast(const QJsonObject &message)
{
    for (ClientConnection *client : std::as_const(m_clients))
        client->send(message);
}

void CommunicationServer::updateHeartbeat(const QString &clientId)
{
    if (const auto heartbeat = m_heartbeats.find(clientId); heartbeat != m_heartbeats.end())
        *heartbeat = m_clock();
}

void CommunicationServer::holdBack(const QString &clientId, bool held)
{
    if (ClientConnection *client = m_clients.value(clientId))
        client->setHeldBack(held);
}

qsizetype CommunicationServer::messageSize(const QString &clientId) const
{
    const ClientConnection *client = m_clients.value(clientId);
    return client ? client->messageSize() : 0;
}

// While connections come fast, QLocalServer accepts without returning to the event loop as long as they are taken
// from it at once. Those beyond the limit wait in its short list, which makes it return, for the next turn of the
// loop: so the other pipes and clients have theirs.
void CommunicationServer::onNewConnection()
{
    if (m_acceptedThisTurn == maxAcceptsPerTurn) {
        QMetaObject::invokeMethod(this, &CommunicationServer::onNewConnection, Qt::QueuedConnection);
        return;
    }
    if (m_acceptedThisTurn++ == 0)
        QMetaObject::invokeMethod(
            this, [this] { m_acceptedThisTurn = 0; }, Qt::QueuedConnection);
    for (SessionServer *server : std::as_const(m_sessionServers)) {
        if (!server->server().hasPendingConnections())
            continue;
        accept(*server);
        return; // one connection for each signal
    }
}

void CommunicationServer::acceptPending(SessionServer &server)
{
    while (server.server().hasPendingConnections())
        accept(server);
}

void CommunicationServer::accept(SessionServer &server)
{
    QLocalSocket *socket = server.server().nextPendingConnection();
    if (!socket)
        return;
    if (m_refusingNewClients) {
        socket->abort();
        socket->deleteLater();
        return;
    }
    auto *client = new ClientConnection(this);
    client->setSocket(socket, server.sessionId());
    connect(client, &ClientConnection::messageReceived, this, &CommunicationServer::onClientMessage);
    connect(client, &ClientConnection::clientDisconnected, this, &CommunicationServer::onClientDisconnected);
    const QString clientId = client->clientId();
    m_clients.insert(clientId, client);
    m_heartbeats.insert(clientId, m_clock());
    emit clientConnected(clientId);
}

void CommunicationServer::onClientMessage(const QString &clientId, const QJsonObject &message)
{
    // The rest of a read may follow a message that ended the client's life here.
    if (m_clients.contains(clientId))
        emit messageReceived(clientId, message);
}

void CommunicationServer::onClientDisconnected(const QString &clientId)
{
    ClientConnection *client = m_clients.take(clientId);
    if (!client)
        return;
    const quint32 sessionId = client->sessionId();
    client->deleteLater();
    m_heartbeats.remove(clientId);
    emit clientDisconnected(clientId, sessionId);
}

void CommunicationServer::armHeartbeatCheck(Milliseconds now)
{
    m_heartbeatCheckDue = now + heartbeatCheckInterval;
    m_heartbeatTimer.start(heartbeatCheckInterval);
}

// While the machine slept or the thread was busy nobody was heard, and the heartbeats of the first moments afterwards
// may still wait unread. When that began is not known: at any moment since the check before this one. So the time
// since then is granted in this check on top of the usual silence, which is what is returned; the next check, before
// which everything has been read, judges as ever.
CommunicationServer::Milliseconds CommunicationServer::forgiveLateness(Milliseconds now)
{
    const Milliseconds lateness = now - m_heartbeatCheckDue;
    if (lateness <= heartbeatCheckTolerance)
        return heartbeatTimeout;
    for (Milliseconds &heartbeat : m_heartbeats)
        heartbeat = std::min(heartbeat + lateness, now);
    return heartbeatTimeout + heartbeatCheckInterval;
}

void CommunicationServer::checkHeartbeats()
{
    const Milliseconds now = m_clock();
    const Milliseconds allowed = forgiveLateness(now);
    armHeartbeatCheck(now);

    QStringList silent;
    for (auto heartbeat = m_heartbeats.begin(); heartbeat != m_heartbeats.end(); ++heartbeat) {
        if (m_isBusy(heartbeat.key()))
            *heartbeat = now; // its heartbeats may be among what waits
        else if (now - heartbeat.value() > allowed)
            silent.append(heartbeat.key());
    }
    for (const QString &clientId : std::as_const(silent))
        timeOut(clientId);
}

void CommunicationServer::timeOut(const QString &clientId)
{
    qCWarning(lcRuvod) << "Client" << clientId << "timed out (no heartbeat for" << heartbeatTimeout.count() << "ms)";
    quint32 sessionId = 0;
    // Out of the table before its socket closes: the disconnect must not be taken for a second departure.
    if (ClientConnection *client = m_clients.take(clientId)) {
        sessionId = client->sessionId();
        client->disconnectQuietly();
        client->deleteLater();
    }
    m_heartbeats.remove(clientId);
    emit clientTimedOut(clientId, sessionId);
}

void CommunicationServer::pollSessions()
{
    const QList<quint32> active = m_listSessions();
    removeInactiveSessions(active);
    for (const quint32 sessionId : active)
        serveSession(sessionId);
}

void CommunicationServer::removeInactiveSessions(const QList<quint32> &active)
{
    const QList<quint32> served = m_sessionServers.keys();
    for (const quint32 sessionId : served) {
        if (active.contains(sessionId))
            continue;
        qCInfo(lcRuvod) << "Removing pipe for inactive session" << sessionId;
        SessionServer *server = m_sessionServers.take(sessionId);
        acceptPending(*server); // who has connected stays connected
        server->deleteLater();
    }
}

// Clients of a session stay when its pipe goes, and so do their instances of it: also those of connections that have
// left the table, until they are closed. One that was closed by its client proves nothing, though it may still be
// there: the name may be a stranger's meanwhile.
bool CommunicationServer::hasConnectionsOf(quint32 sessionId) const
{
    const auto connections = findChildren<ClientConnection *>(Qt::FindDirectChildrenOnly);
    return std::ranges::any_of(connections, [sessionId](const ClientConnection *client) {
        return client->sessionId() == sessionId && client->isOpen();
    });
}

void CommunicationServer::serveSession(quint32 sessionId)
{
    if (SessionServer *server = m_sessionServers.value(sessionId)) {
        // Reopens a server that lost its listener; one that cannot be reopened is made anew at the next poll.
        acceptPending(*server); // opening it again would drop them
        if (!server->start())
            m_sessionServers.take(sessionId)->deleteLater();
        return;
    }
    qCInfo(lcRuvod) << "Creating pipe for new active session" << sessionId;
    auto *server =
        new SessionServer(sessionId, QStringLiteral(R"(\\.\pipe\%1-%2)").arg(m_serverName).arg(sessionId), this);
    using Name = PipeAnchor::Name;
    if (!server->start(hasConnectionsOf(sessionId) ? Name::inUse : Name::unused)) {
        delete server; // never listened, so nothing of it is in the event loop
        return;
    }
    connect(server, &SessionServer::newConnection, this, &CommunicationServer::onNewConnection);
    m_sessionServers.insert(sessionId, server);
    // A client that came while the pipe was being made (Windows) was signalled to nobody. Left pending, it would be
    // taken in place of the next one, and every client after it one too late.
    acceptPending(*server);
}

} // namespace ruvo
