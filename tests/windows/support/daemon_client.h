#pragma once

#include "support/pipe_client.h"

#include <QJsonObject>

#include <functional>
#include <memory>
#include <optional>

namespace ruvo::test {

/// A client of the daemon's pipe for one session that waits for what it expects. Needs the event loop.
class DaemonClient
{
public:
    /// Connects to the pipe of `sessionId`, trying again while it is not there.
    explicit DaemonClient(quint32 sessionId);

    PipeClient &pipe() { return *m_pipe; }
    bool isConnected() const { return m_pipe->isConnected(); }

    void send(const QJsonObject &message);
    /// Sends a request and waits for its answer, which is empty after a time-out.
    QJsonObject request(const QString &action, QJsonObject fields = {});
    /// Waits for an event of this name; empty after a time-out.
    QJsonObject waitForEvent(const QString &event);

private:
    QJsonObject waitForMessage(const std::function<bool(const QJsonObject &)> &matches);

    std::unique_ptr<PipeClient> m_pipe;
    int m_lastRequest = 0;
};

/// Whether anybody holds an end of the pipe of `sessionId`: listening, or for a client that is still connected.
bool daemonPipeExists(quint32 sessionId);
/// Whether a new client would be accepted there.
bool daemonPipeListens(quint32 sessionId);

} // namespace ruvo::test
