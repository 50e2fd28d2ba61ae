#pragma once

#include "common/proxy_sign.h"
#include "common/steady_clock.h"
#include "common/windows_handles.h"
#include "io/completion_port.h"
#include "nat/connect_log.h"
#include "nat/relay_table.h"
#include "nat/tcp_nat_table.h"
#include "socks5/port_exchange.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

namespace ruvo {

/// Where one connection goes.
struct RelayRoute
{
    /// Where it really goes, in host order: not always the address that the application sees.
    std::uint32_t address = 0;
    std::uint16_t port = 0;
    /// Past the proxy; else through the inbound at `proxyPort`.
    bool isDirect = false;
    std::uint16_t proxyPort = 0;
};

/// Gives each accepted connection its relay: asks for its route, connects to the proxy or to the destination on the
/// completion port, and joins the two. A way out that takes its time takes a socket and no thread, so those that
/// nobody answers hold up nobody.
///
/// m_mutex guards the clients that wait, and is held to find and collect only, never over a call into a socket.
class RelayConnector
{
public:
    /// For one attempt to connect and, to the proxy, to be let through. A client may take two: by name, by address.
    static constexpr std::chrono::seconds attemptTimeout{10};
    /// Relays, and clients that wait for theirs, at a time.
    static constexpr std::size_t maxConnections = 16384;
    /// Each attempt that is overdue costs a socket closed and, by name, another one opened. Thousands of them at once
    /// would hold up the thread that does the housekeeping.
    static constexpr std::size_t maxExpiredAtOnce = 256;

    struct Questions
    {
        /// Asked on the worker that took the accept, while the owner of the client's port can still be told. No
        /// route: the connection is closed.
        std::function<std::optional<RelayRoute>(const TcpNatSession &)> routeFor;
        /// The name that was last looked up for an address; empty if none is known.
        std::function<std::string(std::uint32_t address)> nameOf;
        /// The interface for direct connections; 0 if it is not known.
        std::function<std::uint32_t()> physicalInterface;
        /// Told of the attempts through the proxy; may be null.
        ProxyWitness proxyWitness = {};
    };

    /// `proxyHost` is a dotted IPv4 address. Clients over `limit` are refused. All that is referred to has to outlive
    /// this, and this has to outlive what it has in flight on the port.
    RelayConnector(const std::wstring &proxyHost, CompletionPort &completionPort, TcpNatTable &natTable,
                   Questions questions, std::size_t limit = maxConnections);

    /// On a worker. A connection that cannot be relayed is reset; its session has ended then.
    void relay(Socket client, const TcpNatSessionPtr &session);
    /// Resets all clients that wait; from here on every client is reset, and nothing connects any more. Relays go on.
    /// From any thread, while workers and housekeeping still run.
    void stopConnecting();
    /// The same, and aborts all relays. Does not wait: what was in flight completes on the port.
    void stop();
    /// Once a second: ends attempts that are overdue, maxExpiredAtOnce at most, and relays that do not end.
    void housekeeping(SteadyTime now = steadyNow());
    std::size_t relays() const { return m_relays.size(); }
    std::size_t waiting() const;

private:
    /// A client whose way out is not there yet. Unless it is taken it is reset, and its session ends.
    class PendingClient
    {
    public:
        PendingClient(Socket socket, TcpNatSessionPtr session, TcpNatTable &table);
        PendingClient(const PendingClient &) = delete;
        PendingClient &operator=(const PendingClient &) = delete;
        ~PendingClient();

        SOCKET socket() const { return m_socket.get(); }
        const TcpNatSessionPtr &session() const { return m_session; }
        bool hasGone() const;
        /// For who takes it, or leaves it here.
        Socket &&takeSocket() { return std::move(m_socket); }
        void forgetSession() { m_session.reset(); }

        RelayRoute route;
        /// The attempt under way. Under the connector's mutex.
        PortExchangePtr attempt;
        /// When that is overdue. Under the same.
        SteadyTime deadline = SteadyTime::max();

    private:
        Socket m_socket;
        TcpNatSessionPtr m_session;
        TcpNatTable &m_table;
    };
    /// Held by m_pending and by the callback of its attempt.
    using PendingClientPtr = std::shared_ptr<PendingClient>;

    template<typename Step>
    void orForget(const PendingClientPtr &client, Step step);
    void findWayOut(const PendingClientPtr &client);
    bool admit(const PendingClientPtr &client);
    void begin(const PendingClientPtr &client, PortExchangePlan plan, PortExchange::Callback callback);
    void connectDirectly(const PendingClientPtr &client);
    void connectThroughProxy(const PendingClientPtr &client);
    void askProxy(const PendingClientPtr &client, const socks5::SocksRequest &request);
    void proxyRefused(const PendingClientPtr &client, bool byName);
    void startRelay(const PendingClientPtr &client, EstablishedExchange destination);
    void forget(const PendingClientPtr &client);
    std::vector<PortExchangePtr> overdueAttempts(SteadyTime now) const;

    const std::wstring m_proxyHost;
    /// In host order; nothing if the host is no address.
    const std::optional<std::uint32_t> m_proxyAddress;
    CompletionPort &m_completionPort;
    TcpNatTable &m_natTable;
    const Questions m_questions;
    const std::size_t m_limit;
    RelayTable m_relays;
    ConnectLog m_log;

    mutable std::mutex m_mutex;
    /// Entered under the mutex.
    std::atomic<bool> m_stopped = false;
    std::unordered_set<PendingClientPtr> m_pending;
};

} // namespace ruvo
