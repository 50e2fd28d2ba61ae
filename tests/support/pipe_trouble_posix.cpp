#include "support/pipe_trouble.h"

#include "support/pipe_client.h"
#include "support/wait_until.h"

#include <QDir>

#include <sys/resource.h>
#include <unistd.h>

namespace ruvo::test {

/// A folder stands where the socket's file would go.
struct PipeNameTaken::Data
{
    QString path;
};

PipeNameTaken::PipeNameTaken(const QString &pipeName, unsigned) : m_data(new Data{QDir::tempPath() + u'/' + pipeName})
{
    QDir().mkpath(m_data->path);
}

PipeNameTaken::~PipeNameTaken()
{
    QDir().rmdir(m_data->path);
}

bool loseListener(QLocalServer &server, const QString &pipeName)
{
    PipeClient client(pipeName);
    if (!client.isConnected())
        return false;
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const int lowestFree = dup(STDIN_FILENO);
    close(lowestFree);
    const rlimit full{static_cast<rlim_t>(lowestFree), before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &full);
    const bool lost = waitUntil([&] { return !server.isListening(); });
    setrlimit(RLIMIT_NOFILE, &before);
    return lost;
}

} // namespace ruvo::test
