#pragma once

#include "daemon/process_ownership.h"
#include "daemon/request_queue.h"

#include <QJsonObject>
#include <QObject>
#include <QProcess>
#include <QSet>

#include <memory>

namespace ruvo {

class CommunicationServer;
class PrivilegeManager;
class ProcessManager;
class RequestDispatcher;
class RuvoTunManager;
struct RequestServices;

/// The root of the daemon: owns its parts, greets clients and cleans up after them.
/// Lives on the service thread, from its construction to its end.
class RuvoDaemon : public QObject
{
    Q_OBJECT

public:
    RuvoDaemon();
    /// With another listening side than one pipe for each of Windows' sessions.
    explicit RuvoDaemon(std::unique_ptr<CommunicationServer> server);
    ~RuvoDaemon() override;

    /// Opens the pipes. False if the listening side cannot start.
    bool start();
    /// The orderly shutdown; ends with everything that was scheduled for deletion deleted. Once.
    void stop();

public slots:
    /// Queues the request; it is handled and answered from the event loop.
    void handleClientMessage(const QString &clientId, const QJsonObject &message);
    void onClientConnected(const QString &clientId);
    /// Cleans up after the client, behind its requests if some still wait. So does onClientTimedOut.
    void onClientDisconnected(const QString &clientId, quint32 sessionId);
    void onClientTimedOut(const QString &clientId, quint32 sessionId);
    /// Sends the event to the process's owner; to nobody if it has none.
    void broadcastProcessEvent(const QJsonObject &event);
    /// The process has ended: it belongs to nobody any more.
    void onProcessFinished(const QString &processId, int exitCode, QProcess::ExitStatus exitStatus);
    /// The proxy does not answer any more: tells every client.
    void broadcastServerDead();
    /// Tells every client to close itself, before the installer replaces files.
    void broadcastClientShutdown();

private:
    RequestServices requestServices();
    RequestQueue::Services queueServices();
    void removeFinishedProcess(const QJsonObject &event);
    void stopTunIfUnused();
    void stopProcessesOf(const QString &clientId, const char *reason);
    void sweepStaleProcesses(const QString &clientId, quint32 sessionId);
    void sweepPendingSessions();

    ProcessManager *m_processManager;
    CommunicationServer *m_communicationServer;
    PrivilegeManager *m_privilegeManager;
    RuvoTunManager *m_tunManager;
    ProcessOwnership m_ownership;
    RequestDispatcher *m_dispatcher;
    RequestQueue *m_requests;
    /// Set first in stop(): clients are still served while it waits, but nothing new starts. (Nor does it from the
    /// moment on when the daemon was asked to quit.)
    bool m_stopping = false;
    /// Sessions that clients left in this turn of the event loop: one sweep serves them all.
    QSet<quint32> m_sessionsToSweep;
};

} // namespace ruvo
