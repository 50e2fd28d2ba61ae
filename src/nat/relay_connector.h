#pragma once

#include "common/windows_handles.h"
#include "io/completion_port.h"
#include "io/connection_threads.h"
#include "nat/relay_table.h"
#include "nat/tcp_nat_table.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>

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

/// Gives each accepted connection its relay: asks for its route, connects to the proxy or to the destination on a
/// thread that may block, and joins the two.
class RelayConnector
{
public:
    struct Questions
    {
        /// Asked on the worker that took the accept, while the owner of the client's port can still be told. No
        /// route: the connection is closed.
        std::function<std::optional<RelayRoute>(const TcpNatSession &)> routeFor;
        /// The name that was last looked up for an address; empty if none is known.
        std::function<std::string(std::uint32_t address)> nameOf;
        /// The interface for direct connections; 0 if it is not known.
        std::function<std::uint32_t()> physicalInterface;
    };

    /// `stopEvent` (not owned) ends every connect. All that is referred to has to outlive this.
    RelayConnector(std::wstring proxyHost, HANDLE stopEvent, CompletionPort &completionPort, TcpNatTable &natTable,
                   Questions questions);

    /// On a worker. A connection that cannot be relayed is reset; its session has ended then.
    void relay(Socket client, const TcpNatSessionPtr &session);
    /// Once the stop event is set: waits for the connects, then aborts all relays.
    void stop();
    /// Once a second.
    void housekeeping() { m_relays.closeOverdue(); }
    std::size_t relays() const { return m_relays.size(); }

private:
    /// A client whose way out is not there yet. Unless it is taken it is reset, and its session ends.
    class PendingClient
    {
    public:
        PendingClient(Socket socket, TcpNatSessionPtr session, TcpNatTable &table);
        PendingClient(PendingClient &&) = default;
        PendingClient &operator=(PendingClient &&) = delete;
        ~PendingClient();

        SOCKET socket() const { return m_socket.get(); }
        bool hasGone() const;
        Socket takeSocket() { return std::move(m_socket); }
        TcpNatSessionPtr takeSession() { return std::move(m_session); }

    private:
        Socket m_socket;
        TcpNatSessionPtr m_session;
        TcpNatTable &m_table;
    };

    static constexpr unsigned maxThreads = 256; // of each kind

    void connectAndStart(PendingClient client, const RelayRoute &route);
    Socket connectThroughProxy(const RelayRoute &route);

    const std::wstring m_proxyHost;
    const HANDLE m_stopEvent;
    CompletionPort &m_completionPort;
    TcpNatTable &m_natTable;
    const Questions m_questions;
    RelayTable m_relays;
    // Apart: a program that calls hundreds of addresses directly which nobody answers at holds up its like, but not
    // what goes to the proxy.
    ConnectionThreads m_proxyThreads{maxThreads};
    ConnectionThreads m_directThreads{maxThreads};
};

} // namespace ruvo
