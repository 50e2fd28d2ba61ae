#pragma once

#include "common/endpoint.h"
#include "common/steady_clock.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace ruvo {

/// One client connection on the way through the local listener. Addresses and ports in host order.
struct TcpNatSession
{
    /// From the client to where it wants to go, as its SYN said.
    const FlowKey flow;
    /// The source port of its packets towards the listener.
    const std::uint16_t natPort;
    const SteadyTime created;
    /// False once its relay has ended, or could not be connected. Closing segments are still rewritten for a while.
    std::atomic<bool> active = true;
    /// Of TcpNatTable, under its mutex.
    bool accepted = false;

    const Endpoint &client() const { return flow.source; }
    const Endpoint &destination() const { return flow.destination; }
};
using TcpNatSessionPtr = std::shared_ptr<TcpNatSession>;

/// Which NAT port stands for which client connection, in both directions.
///
/// From any thread; one mutex, held for one look-up in an ordered map or an array at a time. What a packet costs does
/// not depend on how many sessions have ended.
class TcpNatTable
{
public:
    static constexpr std::uint16_t firstNatPort = 30000;
    /// For how long the closing segments of an ended connection are still rewritten.
    static constexpr std::chrono::minutes lingerTime{2};
    /// A SYN whose connection nobody accepts is forgotten after this.
    static constexpr std::chrono::minutes acceptTime{1};

    explicit TcpNatTable(SteadyClock clock = steadyNow) : m_clock(std::move(clock)), m_byNatPort(portCount) {}

    /// The NAT port of the connection that a SYN opens: that of its session if it is active (a repeated SYN), else a
    /// new one. 0 when every port belongs to an active session, or after close.
    std::uint16_t allocateNatPort(const FlowKey &flow);
    std::uint16_t allocateNatPort(std::uint32_t clientAddress, std::uint16_t clientPort,
                                  std::uint32_t destinationAddress, std::uint16_t destinationPort)
    {
        return allocateNatPort({{clientAddress, clientPort}, {destinationAddress, destinationPort}});
    }
    /// The NAT port of a connection that is known, active or lingering; else 0.
    std::uint16_t findNatPort(const FlowKey &flow) const;
    /// The newest session from this source, which may have several: a port is shared by connections to different
    /// destinations.
    TcpNatSessionPtr findByClient(const Endpoint &client) const;
    TcpNatSessionPtr findByClient(std::uint32_t clientAddress, std::uint16_t clientPort) const
    {
        return findByClient({clientAddress, clientPort});
    }
    TcpNatSessionPtr findByNatPort(std::uint16_t natPort) const;

    /// As findByNatPort, for the listener: the session is in use from now on and lasts until `end`. Each connection
    /// gets one of its own.
    TcpNatSessionPtr accept(std::uint16_t natPort);
    /// The connection is over; its port is free after the linger time, or sooner when ports run out.
    void end(const TcpNatSessionPtr &session);

    /// Forgets what has lingered, and what was not accepted, for long enough.
    void expire();
    /// Forgets everything; nothing is inserted any more.
    void close();
    std::size_t size() const;

private:
    static constexpr std::size_t portCount = 65536;

    struct Ended
    {
        TcpNatSessionPtr session;
        SteadyTime time;
    };
    struct Opened
    {
        std::uint16_t natPort;
        SteadyTime time;
    };

    std::uint16_t takeFreePort();
    void replace(TcpNatSessionPtr &session);
    void erase(const TcpNatSession &session);

    const SteadyClock m_clock;
    mutable std::mutex m_mutex;
    bool m_closed = false;
    std::uint16_t m_nextNatPort = firstNatPort;
    std::size_t m_portsInUse = 0;
    /// By NAT port.
    std::vector<TcpNatSessionPtr> m_byNatPort;
    std::map<FlowKey, TcpNatSessionPtr> m_byClient;
    /// Inactive sessions, the longest ended first.
    std::deque<Ended> m_ended;
    /// What may still be waiting for its accept, oldest first.
    std::deque<Opened> m_opened;
};

} // namespace ruvo
