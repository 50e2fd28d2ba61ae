#pragma once

#include "common/capped_log.h"
#include "common/windows_handles.h"
#include "io/completion_port.h"
#include "nat/tcp_nat_table.h"

#include <mswsock.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

namespace ruvo {

/// The local socket on which Windows' own TCP stack terminates the connections that enter the tunnel, and the table
/// that says whose they are.
///
/// One accept is outstanding at a time; it completes on the port's workers and holds a reference to the listener.
/// initialize belongs to one thread, shutdown comes after it; all else may be called from any thread. m_mutex guards
/// the two sockets, so that none is closed while another thread issues a call on it.
class TcpNatListener : public std::enable_shared_from_this<TcpNatListener>
{
public:
    /// Gets an accepted connection on a worker. The next accept is outstanding already.
    using AcceptCallback = std::function<void(Socket client, const TcpNatSessionPtr &session)>;

    TcpNatListener();

    /// Listens on `listenAddress` (host order). With `requestedPort` 0 the system chooses; `outPort` gets the port.
    /// Failures are logged as critical, and leave nothing behind.
    bool initialize(std::uint32_t listenAddress, std::uint16_t requestedPort, CompletionPort &completionPort,
                    AcceptCallback acceptCallback, std::uint16_t &outPort);
    /// From now on no accept is issued, and the client that the outstanding one still takes is closed; others wait
    /// in the backlog until shutdown closes the listener. Before shutdown, which may come later.
    void stopAccepting();
    /// The sockets are closed and the table emptied for good. Once.
    void shutdown();

    std::uint16_t listenPort() const { return m_listenPort; }
    TcpNatTable &table() { return m_table; }

    /// Posts an accept if there is none, which happens after an error.
    void ensureAccepting();
    /// A worker's part: the outstanding accept has ended.
    void onAcceptCompleted(bool success);

private:
    /// What AcceptEx wants for each address: 16 bytes more than the address.
    static constexpr DWORD addressRoom = 32;

    Socket openListener(std::uint16_t requestedPort);
    bool bindListener(SOCKET socket, std::uint16_t requestedPort) const;
    void postAccept();
    void onAccepted(DWORD, DWORD error) { onAcceptCompleted(error == NO_ERROR); }
    std::uint16_t acceptedPort(SOCKET client);
    void handOver(Socket client, std::uint16_t natPort);

    TcpNatTable m_table;
    std::uint32_t m_listenAddress = 0;
    std::uint16_t m_listenPort = 0;
    CompletionPort *m_completionPort = nullptr;
    AcceptCallback m_acceptCallback;
    LPFN_ACCEPTEX m_acceptEx = nullptr;
    std::atomic<bool> m_running = false;
    std::atomic<bool> m_accepting = false;

    std::mutex m_mutex;
    Socket m_listenSocket;
    Socket m_acceptSocket;
    std::array<char, 2 * addressRoom> m_addresses;
    MemberOperation<&TcpNatListener::onAccepted> m_acceptOperation{*this};

    // Any program can connect to the listener any number of times.
    CappedLog m_noAcceptSocket{10, 100};
    CappedLog m_acceptRefused{10, 100};
    CappedLog m_acceptFailed{10, 100};
    CappedLog m_noSession{10, 100};
};

} // namespace ruvo
