#pragma once

#include "common/windows_handles.h"
#include "engine/engine_services.h"
#include "engine/tcp_connection.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <span>
#include <vector>

namespace ruvo {

/// Terminates, in user space, the connections that do not come from this host: plays the server's side of TCP towards
/// the application, and relays the bytes over a connection of its own to the proxy.
///
/// Packets come on the reader thread, completions on the port's workers, `drainWaiting` and `housekeeping` on the
/// flow control thread. m_mutex guards the tables and is held only to find, insert and collect; m_waitingMutex the
/// list of connections with packets that wait. Lock order: table, connection, stream; the waiting list is taken with
/// no other.
class TcpEngine
{
public:
    /// With those that are closing, which make room for new ones.
    static constexpr std::size_t maxConnections = 4096;

    /// `services` are copied. What they refer to has to outlive this; this has to outlive all operations in flight.
    explicit TcpEngine(EngineServices services, std::size_t connectionLimit = maxConnections);
    ~TcpEngine();
    TcpEngine(const TcpEngine &) = delete;
    TcpEngine &operator=(const TcpEngine &) = delete;

    /// A packet from the application. Reader thread.
    void handleTcpPacket(const ParsedPacket &packet);

    /// Set when a packet that has waited may be written now. For the flow control thread to wait for.
    HANDLE drainEvent() const { return m_drainEvent.get(); }
    /// Writes what waits, until the adapter refuses or `isRunning` says no.
    void drainWaiting(const std::function<bool()> &isRunning);
    /// Once a second: ends what nothing else would.
    void housekeeping();
    /// The connections by state, for the log.
    void logConnectionStates();

    using Table = std::map<ConnectionKey, TcpConnectionPtr>;
    /// Takes every connection out, those that are closing as well, and cancels what is in flight for them: their
    /// packets are dropped from now on, and the applications are told nothing. New ones may still be opened. Without
    /// an allocation. The caller lets go of them, which closes their sockets, once the cancelled completions have
    /// been through the workers.
    [[nodiscard]] Table takeAll();
    /// The same for who has no reason to wait.
    void resetAll() { static_cast<void>(takeAll()); }
    /// The same, for good.
    void close();

    std::size_t connections() const;
    std::size_t establishedConnections() const { return m_established; }
    std::size_t closingConnections() const;

    // For its connections, from any thread without a lock.

    const EngineServices &services() const { return m_services; }
    OutOfOrderBudget &outOfOrderBudget() { return m_outOfOrderBudget; }
    void onEstablished(const TcpConnectionPtr &connection);
    /// Sends a bare acknowledgement.
    void acknowledge(const TcpConnectionPtr &connection);
    /// Early segments of it have been queued.
    void noteDrained(const TcpConnection &connection, unsigned segments);
    /// Has what waits for the application looked after, if anything does.
    void watch(const TcpConnectionPtr &connection);
    /// Takes it out of the table; what is left to be done for it is done.
    void beginClosing(const TcpConnectionPtr &connection);
    void endIfDone(const TcpConnectionPtr &connection);
    /// Ends it at once.
    void cleanupConnection(const TcpConnectionPtr &connection);

private:
    TcpConnectionPtr find(const Table &table, const ConnectionKey &key) const;
    void open(const ConnectionKey &key, const ParsedPacket &packet, const TcpSegment &syn);
    bool insert(const TcpConnectionPtr &connection);
    TcpConnectionPtr longestClosing() const;
    std::vector<TcpConnectionPtr> all() const;
    bool remove(const TcpConnectionPtr &connection, bool isClosing);
    void handleClosing(const ConnectionKey &key, const TcpSegment &segment);
    void takeNumbers(const TcpConnectionPtr &connection, const TcpSegment &segment);
    void handleFin(const TcpConnectionPtr &connection, const TcpSegment &segment);
    void handleData(const TcpConnectionPtr &connection, const TcpSegment &segment);
    void forget(const TcpConnectionPtr &connection);
    enum class Adapter { HasRoom, Full };
    Adapter drain(const TcpConnectionPtr &connection);
    void noteResumed(const TcpConnection &connection, const TcpSender::Drained &drained);
    void resumeReceiving(const TcpConnectionPtr &connection);
    void countOut(TcpConnection &connection);

    const EngineServices m_services;
    const std::size_t m_connectionLimit;
    const KernelHandle m_drainEvent;
    OutOfOrderBudget m_outOfOrderBudget;
    std::atomic<std::size_t> m_established = 0;

    mutable std::mutex m_mutex;
    bool m_isClosed = false;
    Table m_connections;
    /// What has left the table and is not done yet: packets that wait, or bytes for the upstream.
    Table m_closing;

    std::mutex m_waitingMutex;
    std::deque<TcpConnectionPtr> m_waiting;
    std::atomic<std::uint64_t> m_drains = 0;
    /// The event has been set and flow control has not looked since.
    std::atomic<bool> m_isDrainWanted = false;
};

} // namespace ruvo
