#pragma once

#include "ipc/client_connection.h"
#include "ipc/session_server.h"

#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QTimer>

#include <chrono>
#include <functional>
#include <utility>

namespace ruvo {

/// The daemon's listening side: one SessionServer for every Windows session with a user, the connected
/// clients, and their heartbeats. Everything runs on the service thread; clients and servers are destroyed by
/// deferred deletion.
class CommunicationServer : public QObject
{
    Q_OBJECT

public:
    using Milliseconds = std::chrono::milliseconds;
    /// The sessions that get a pipe. Asked at every poll; an empty answer removes all pipes.
    using SessionLister = std::function<QList<quint32>()>;
    /// A monotonic clock.
    using Clock = std::function<Milliseconds()>;

    static constexpr Milliseconds heartbeatCheckInterval{5000};
    /// A client is timed out when strictly more than this has passed since its last heartbeat.
    static constexpr Milliseconds heartbeatTimeout{10000};
    static constexpr Milliseconds sessionPollInterval{3000};
    /// A heartbeat check that comes later than this counts as held up: see checkHeartbeats.
    static constexpr Milliseconds heartbeatCheckTolerance{1000};
    /// Connections taken before the event loop has its turn again.
    static constexpr int maxAcceptsPerTurn = 16;

    explicit CommunicationServer(SessionLister listSessions, QObject *parent = nullptr,
                                 Clock clock = monotonicClock());
    ~CommunicationServer() override;

    /// Opens the pipes "\\.\pipe\<serverName>-<session>" and starts polling for sessions. Always true, even
    /// when no pipe could be made: the poll tries again.
    virtual bool start(const QString &serverName);
    /// From now on whoever connects is dropped at once; connected clients are still served. For the shutdown.
    void refuseNewClients() { m_refusingNewClients = true; }
    /// Drops all clients (without disconnect signals), pipes and timers.
    void stop();

    /// Nothing happens if the client is gone.
    void sendToClient(const QString &clientId, const QJsonObject &message);
    void broadcast(const QJsonObject &message);
    void updateHeartbeat(const QString &clientId);

    /// Reads nothing more of this client for now, or goes on: see ClientConnection::setHeldBack.
    void holdBack(const QString &clientId, bool held);
    /// Inside of messageReceived: the length of that message as it came, in bytes. 0 for an unknown client.
    qsizetype messageSize(const QString &clientId) const;
    /// Who tells that requests of a client wait to be handled. Such a client is not judged by its heartbeats.
    void setBusyClients(std::function<bool(const QString &clientId)> isBusy) { m_isBusy = std::move(isBusy); }

    qsizetype clientCount() const { return m_clients.size(); }

signals:
    void clientConnected(const QString &clientId);
    void clientDisconnected(const QString &clientId, quint32 sessionId);
    /// Whoever receives this must not run an event loop of its own.
    void messageReceived(const QString &clientId, const QJsonObject &message);
    /// Part of the interface; nothing emits it.
    void serverError(const QString &error);
    void clientTimedOut(const QString &clientId, quint32 sessionId);

public slots:
    void onNewConnection();
    void onClientMessage(const QString &clientId, const QJsonObject &message);
    void onClientDisconnected(const QString &clientId);
    /// Times out who has been silent for too long. The time by which the check itself comes late (the machine slept,
    /// or this thread was busy) is nobody's silence.
    void checkHeartbeats();
    void pollSessions();

private:
    static Clock monotonicClock();
    void armHeartbeatCheck(Milliseconds now);
    Milliseconds forgiveLateness(Milliseconds now);
    void timeOut(const QString &clientId);
    void accept(SessionServer &server);
    void acceptPending(SessionServer &server);
    void removeInactiveSessions(const QList<quint32> &active);
    void serveSession(quint32 sessionId);
    bool hasConnectionsOf(quint32 sessionId) const;

    const SessionLister m_listSessions;
    const Clock m_clock;

    QHash<QString, ClientConnection *> m_clients;
    /// When each client last gave a sign of life.
    QHash<QString, Milliseconds> m_heartbeats;
    QTimer m_heartbeatTimer;
    Milliseconds m_heartbeatCheckDue{};
    std::function<bool(const QString &clientId)> m_isBusy = [](const QString &) { return false; };

    bool m_refusingNewClients = false;
    int m_acceptedThisTurn = 0;
    QString m_serverName;
    QHash<quint32, SessionServer *> m_sessionServers;
    QTimer m_sessionPollTimer;
};

} // namespace ruvo
