// The connections with packets that wait for the adapter or for the application's window.

#include "engine/tcp_engine.h"

#include "common/log_category.h"
#include "engine/tcp_notes.h"

#include <new>
#include <utility>

namespace ruvo {

void TcpEngine::watch(const TcpConnectionPtr &connection)
{
    if (!connection->stream().hasWork())
        return;
    const std::lock_guard lock(m_waitingMutex);
    if (!std::exchange(connection->isListed, true))
        m_waiting.push_back(connection);
}

/// What waits for an application that has gone: the list would hold the upstream's socket open.
void TcpEngine::forget(const TcpConnectionPtr &connection)
{
    connection->stream().abandon();
    const std::lock_guard lock(m_waitingMutex);
    if (std::exchange(connection->isListed, false))
        std::erase(m_waiting, connection);
}

void TcpEngine::drainWaiting(const std::function<bool()> &isRunning)
{
    m_isDrainWanted = false; // first: what makes room from here on is looked at again
    std::size_t left = 0;
    {
        const std::lock_guard lock(m_waitingMutex);
        left = m_waiting.size();
    }
    for (; left > 0 && isRunning(); --left) {
        TcpConnectionPtr connection;
        {
            const std::lock_guard lock(m_waitingMutex);
            if (m_waiting.empty())
                return;
            connection = std::move(m_waiting.front());
            m_waiting.pop_front();
            connection->isListed = false;
        }
        try {
            if (drain(connection) == Adapter::Full)
                return;
        } catch (const std::bad_alloc &) { // there is no memory for this one
            cleanupConnection(connection);
        }
    }
}

TcpEngine::Adapter TcpEngine::drain(const TcpConnectionPtr &connection)
{
    const TcpSender::Drained drained = connection->stream().drain(m_services.clock());
    if (drained.packets > 0)
        noteResumed(*connection, drained);
    if (drained.resumes)
        resumeReceiving(connection);
    watch(connection); // behind all others
    endIfDone(connection);
    return drained.isRefused ? Adapter::Full : Adapter::HasRoom;
}

void TcpEngine::noteResumed(const TcpConnection &connection, const TcpSender::Drained &drained)
{
    const std::uint64_t number = ++m_drains;
    if (isDue(TcpNote::PacketsDrained)) {
        qCDebug(lcRuvod).nospace() << "[FLOW] Resumed connection #" << number << " port=" << connection.port()
                                   << " drained=" << drained.packets << " packets " << drained.bytes;
    }
}

void TcpEngine::resumeReceiving(const TcpConnectionPtr &connection)
{
    if (isDue(TcpNote::ReceiveResumed)) {
        qCWarning(lcRuvod).nospace() << "[BACKPRESSURE] Resuming recv - queue drained: port=" << connection->port()
                                     << " queue=" << connection->stream().waitingPackets();
    }
    connection->postReceive();
}

} // namespace ruvo
