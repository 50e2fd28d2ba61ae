#pragma once

#include "daemon/process_ownership.h"

#include <QJsonObject>
#include <QObject>
#include <QSet>

namespace ruvo {

class CommunicationServer;
class PrivilegeManager;
class RequestDispatcher;

/// The root of the daemon: owns its parts, greets clients and cleans up after them.
/// Lives on the service thread, from its construction to its end.
class RuvoDaemon : public QObject
{
    Q_OBJECT

public:
    RuvoDaemon();
    ~RuvoDaemon() override;

    /// Opens the pipes. False if the listening side cannot start.
    bool start();
    /// The orderly shutdown; ends with everything that was scheduled for deletion deleted. Once.
    void stop();

public slots:
    void handleClientMessage(const QString &clientId, const QJsonObject &message);
    void onClientConnected(const QString &clientId);
    void onClientDisconnected(const QString &clientId, quint32 sessionId);
    void onClientTimedOut(const QString &clientId, quint32 sessionId);
    /// Tells every client to close itself, before the installer replaces files.
    void broadcastClientShutdown();

private:
    void sweepStaleProcesses(const QString &clientId, quint32 sessionId);
    void sweepPendingSessions();

    CommunicationServer *m_communicationServer;
    PrivilegeManager *m_privilegeManager;
    RequestDispatcher *m_dispatcher;
    /// Sessions that clients left in this turn of the event loop: one sweep serves them all.
    QSet<quint32> m_sessionsToSweep;
};

} // namespace ruvo
