#include "ipc/session_server.h"

#include "common/log_category.h"

namespace ruvo {

SessionServer::SessionServer(quint32 sessionId, const QString &pipeName, QObject *parent)
    : QObject(parent)
    , m_sessionId(sessionId)
    , m_pipeName(pipeName)
    , m_server(this)
{
    m_server.setSocketOptions(QLocalServer::WorldAccessOption);
    connect(&m_server, &QLocalServer::newConnection, this, &SessionServer::newConnection);
}

SessionServer::~SessionServer()
{
    if (m_server.isListening()) {
        m_server.close();
        QLocalServer::removeServer(m_pipeName);
        qCDebug(lcRuvod) << "Named pipe server stopped for session" << m_sessionId;
    }
}

// On Windows, QLocalServer keeps a number of pipe instances waiting. A client that connects and drops at once
// makes it close itself, or lose one instance after the other until none is left while isListening() stays
// true; an error text that was not there when it was opened is the only trace of the second.
bool SessionServer::isComplete() const
{
    return m_server.isListening() && m_server.errorString() == m_errorWhenOpened;
}

bool SessionServer::start()
{
    if (isComplete())
        return true;
    m_server.close();
    if (!m_server.listen(m_pipeName)) {
        qCWarning(lcRuvod) << "Failed to start named pipe for session" << m_sessionId << ":" << m_server.errorString();
        return false;
    }
    m_errorWhenOpened = m_server.errorString();
    qCInfo(lcRuvod) << "Named pipe server started for session" << m_sessionId << ":" << m_pipeName;
    return true;
}

} // namespace ruvo
