#pragma once

#include "support/pipe_client.h"

#include <QLocalServer>
#include <QLocalSocket>

#include <memory>

namespace ruvo::test {

/// A pipe name that no other test process uses.
QString privatePipeName(const QString &purpose);

/// Both ends of a pipe: a client, and the socket that a server has accepted and nobody has touched yet.
class ConnectedPair
{
public:
    /// Check isConnected() first.
    ConnectedPair();

    bool isConnected() const { return m_accepted && m_client->isConnected(); }
    PipeClient &client() { return *m_client; }
    QLocalSocket *accepted() { return m_accepted; }

private:
    QLocalServer m_server;
    std::unique_ptr<PipeClient> m_client;
    QLocalSocket *m_accepted = nullptr;
};

} // namespace ruvo::test
