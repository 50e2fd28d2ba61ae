#include "support/connected_pair.h"

#include "support/wait_until.h"

#include <QCoreApplication>

namespace ruvo::test {

QString privatePipeName(const QString &purpose)
{
    return QStringLiteral(R"(\\.\pipe\ruvod-test-%1-%2)").arg(purpose).arg(QCoreApplication::applicationPid());
}

ConnectedPair::ConnectedPair()
{
    const QString name = privatePipeName("pair");
    if (!m_server.listen(name))
        return;
    m_client = std::make_unique<PipeClient>(name);
    if (waitUntil([this] { return m_server.hasPendingConnections(); }))
        m_accepted = m_server.nextPendingConnection();
}

} // namespace ruvo::test
