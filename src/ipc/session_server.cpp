#include "ipc/session_server.h"

#include "common/log_category.h"
#include "ipc/half_open_server.h"

namespace ruvo {

SessionServer::SessionServer(quint32 sessionId, const QString &pipeName, QObject *parent)
    : QObject(parent), m_sessionId(sessionId), m_pipeName(pipeName)
{
    replaceServer();
}

SessionServer::~SessionServer()
{
    if (m_server->isListening()) {
        m_server->close();
        QLocalServer::removeServer(m_pipeName);
        qCDebug(lcRuvod) << "Named pipe server stopped for session" << m_sessionId;
    }
}

// A fresh one for each opening: Qt keeps the text of an old error, and one that comes a second time could not be
// told from it.
void SessionServer::replaceServer()
{
    if (m_server) {
        m_server->disconnect(this);
        m_server->close();
        m_server->deleteLater();
    }
    m_server = new QLocalServer(this);
    m_server->setSocketOptions(QLocalServer::WorldAccessOption);
    connect(m_server, &QLocalServer::newConnection, this, &SessionServer::newConnection);
}

// On Windows, QLocalServer keeps a number of pipe instances waiting. A client that connects and drops at once
// makes it close itself, or lose one instance after the other until none is left while isListening() stays
// true; the error text, which a healthy server does not have, is the only trace of the second.
bool SessionServer::isComplete() const
{
    return m_server->isListening() && m_server->errorString().isEmpty();
}

// A client that connects and drops in the very instant in which its pipe instance is made fails the whole opening.
// While many do, the next poll would only fail again.
bool SessionServer::listen(QString &error)
{
    constexpr int attempts = 10;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        replaceServer();
        if (m_server->listen(m_pipeName))
            return true;
        error = m_server->errorString();
        closeHalfOpenServer(*m_server);
    }
    return false;
}

// An anchor that is open stays when the server is opened again: until then the name is nobody else's. Without a
// server it goes, as clients would wait at a pipe that is there and takes nobody.
bool SessionServer::open(PipeAnchor::Name name, QString &error)
{
    if (!m_anchor.isOpen())
        error = m_anchor.open(m_pipeName, name);
    if (!m_anchor.isOpen())
        return false;
    if (listen(error))
        return true;
    m_anchor.close();
    return false;
}

bool SessionServer::start(PipeAnchor::Name name)
{
    if (isComplete())
        return true;
    QString error;
    if (!open(name, error)) {
        qCWarning(lcRuvod) << "Failed to start named pipe for session" << m_sessionId << ":" << error;
        return false;
    }
    qCInfo(lcRuvod) << "Named pipe server started for session" << m_sessionId << ":" << m_pipeName;
    return true;
}

} // namespace ruvo
