#include "nat/tcp_nat_listener.h"

#include "common/ipv4.h"
#include "common/log_category.h"
#include "io/socket_options.h"
#include "io/winsock_extension.h"

#include <chrono>
#include <new>
#include <utility>

namespace ruvo {

namespace {

// A new adapter's address takes a moment before one can bind to it.
constexpr DWORD bindRetryInterval = 50; // ms
constexpr std::chrono::seconds bindRetryTime{3};

} // namespace

TcpNatListener::TcpNatListener() : m_addresses{} {}

bool TcpNatListener::initialize(std::uint32_t listenAddress, std::uint16_t requestedPort,
                                CompletionPort &completionPort, AcceptCallback acceptCallback, std::uint16_t &outPort)
{
    m_listenAddress = listenAddress;
    m_completionPort = &completionPort;
    m_acceptCallback = std::move(acceptCallback);
    Socket socket = openListener(requestedPort);
    if (!socket)
        return false;
    outPort = m_listenPort;
    m_listenSocket = std::move(socket);
    qCWarning(lcRuvod).nospace().noquote()
        << "[TCP-NAT] Listening on " << formatIpv4(listenAddress) << ":" << m_listenPort;
    m_running = true;
    m_accepting = true;
    postAccept();
    return true;
}

Socket TcpNatListener::openListener(std::uint16_t requestedPort)
{
    Socket socket(openSocket(SOCK_STREAM, IPPROTO_TCP));
    if (!socket) {
        const int error = WSAGetLastError();
        qCCritical(lcRuvod) << "[TCP-NAT] Failed to create listener socket:" << error;
        return {};
    }
    const int on = 1;
    setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, reinterpret_cast<const char *>(&on), sizeof(on));
    if (!bindListener(socket.get(), requestedPort)) {
        const int error = WSAGetLastError();
        qCCritical(lcRuvod) << "[TCP-NAT] Failed to bind listener:" << error;
        return {};
    }
    sockaddr_in bound{};
    int size = sizeof(bound);
    if (getsockname(socket.get(), reinterpret_cast<sockaddr *>(&bound), &size) != 0) {
        const int error = WSAGetLastError();
        qCCritical(lcRuvod) << "[TCP-NAT] Failed to get bound port:" << error;
        return {};
    }
    m_listenPort = ntohs(bound.sin_port);
    if (listen(socket.get(), SOMAXCONN) != 0) {
        const int error = WSAGetLastError();
        qCCritical(lcRuvod) << "[TCP-NAT] Failed to listen:" << error;
        return {};
    }
    m_acceptEx = acceptExPointer(socket.get());
    if (!m_acceptEx) {
        const int error = WSAGetLastError();
        qCCritical(lcRuvod) << "[TCP-NAT] Failed to load AcceptEx:" << error;
        return {};
    }
    if (!m_completionPort->associate(socket.get(), CompletionKey::NatAccept)) {
        const DWORD error = GetLastError();
        qCCritical(lcRuvod) << "[TCP-NAT] Failed to associate listener with IOCP:" << error;
        return {};
    }
    return socket;
}

bool TcpNatListener::bindListener(SOCKET socket, std::uint16_t requestedPort) const
{
    const sockaddr_in address = socketAddress(m_listenAddress, requestedPort);
    const auto deadline = std::chrono::steady_clock::now() + bindRetryTime;
    while (bind(socket, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0) {
        if (WSAGetLastError() != WSAEADDRNOTAVAIL)
            return false;
        if (std::chrono::steady_clock::now() >= deadline) {
            WSASetLastError(WSAEADDRNOTAVAIL);
            return false;
        }
        Sleep(bindRetryInterval);
    }
    return true;
}

void TcpNatListener::postAccept()
{
    const std::lock_guard lock(m_mutex);
    if (!m_accepting || m_acceptSocket)
        return;
    m_acceptSocket.reset(openSocket(SOCK_STREAM, IPPROTO_TCP));
    if (!m_acceptSocket) {
        const int error = WSAGetLastError();
        if (m_noAcceptSocket.take())
            qCCritical(lcRuvod) << "[TCP-NAT] Failed to create accept socket:" << error;
        return;
    }
    const auto accept = [this](DWORD &received) {
        return m_acceptEx(m_listenSocket.get(), m_acceptSocket.get(), m_addresses.data(), 0, addressRoom, addressRoom,
                          &received, &m_acceptOperation)
               != FALSE;
    };
    const CompletionPort::Issued issued =
        m_completionPort->issue(m_acceptOperation, shared_from_this(), false, accept);
    if (issued.state == CompletionPort::Issued::State::Failed) {
        m_acceptSocket.reset();
        if (m_acceptRefused.take())
            qCWarning(lcRuvod) << "[TCP-NAT] AcceptEx failed:" << issued.error;
    }
}

void TcpNatListener::ensureAccepting()
{
    postAccept();
}

void TcpNatListener::onAcceptCompleted(bool success)
{
    Socket client;
    std::uint16_t natPort = 0;
    {
        const std::lock_guard lock(m_mutex);
        client = std::move(m_acceptSocket);
        if (!m_accepting)
            return;
        if (success)
            natPort = acceptedPort(client.get());
    }
    if (!success) {
        if (m_acceptFailed.take())
            qCWarning(lcRuvod) << "[TCP-NAT] AcceptEx completion failed";
        client.reset();
        postAccept();
        return;
    }
    // The next client does not wait for what is done about this one.
    postAccept();
    handOver(std::move(client), natPort);
}

void TcpNatListener::handOver(Socket client, std::uint16_t natPort)
{
    TcpNatSessionPtr session;
    try {
        session = m_table.accept(natPort);
    } catch (const std::bad_alloc &) {
        resetWhenClosed(client.get()); // the end of this client only
        return;
    }
    if (session)
        m_acceptCallback(std::move(client), session);
    else if (m_noSession.take())
        qCWarning(lcRuvod) << "[TCP-NAT] No NAT session for NAT port" << natPort;
}

/// The remote port of a connection that was just accepted; 0 if it cannot be told, or if it did not come through the
/// tunnel: a local program may connect to the listener as well, from a port that is a NAT port of somebody else.
std::uint16_t TcpNatListener::acceptedPort(SOCKET client)
{
    const SOCKET listener = m_listenSocket.get();
    setsockopt(client, SOL_SOCKET, SO_UPDATE_ACCEPT_CONTEXT, reinterpret_cast<const char *>(&listener),
               sizeof(listener));
    const LPFN_GETACCEPTEXSOCKADDRS addresses = acceptExAddressesPointer(listener);
    if (!addresses)
        return 0;
    sockaddr *local = nullptr;
    sockaddr *remote = nullptr;
    int localSize = 0;
    int remoteSize = 0;
    addresses(m_addresses.data(), 0, addressRoom, addressRoom, &local, &localSize, &remote, &remoteSize);
    if (!remote || remote->sa_family != AF_INET)
        return 0;
    const auto *peer = reinterpret_cast<const sockaddr_in *>(remote);
    return ntohl(peer->sin_addr.s_addr) == m_listenAddress + 1 ? ntohs(peer->sin_port) : 0;
}

void TcpNatListener::stopAccepting()
{
    m_accepting = false;
}

void TcpNatListener::shutdown()
{
    stopAccepting();
    if (!m_running.exchange(false))
        return;
    {
        const std::lock_guard lock(m_mutex);
        m_acceptSocket.reset();
        m_listenSocket.reset();
    }
    m_table.close();
}

} // namespace ruvo
