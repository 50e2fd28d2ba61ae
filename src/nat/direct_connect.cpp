#include "nat/direct_connect.h"

#include "common/ipv4.h"
#include "common/log_category.h"
#include "io/socket_options.h"
#include "io/timed_io.h"

#include <chrono>

namespace ruvo {

namespace {

constexpr std::chrono::seconds connectTimeout{10};

/// Windows wants the index in network byte order here, unlike IPV6_UNICAST_IF.
void bindToInterface(SOCKET socket, std::uint32_t interfaceIndex)
{
    const DWORD index = htonl(interfaceIndex);
    if (setsockopt(socket, IPPROTO_IP, IP_UNICAST_IF, reinterpret_cast<const char *>(&index), sizeof(index)) == 0) {
        qCDebug(lcRuvod) << "[TCP-NAT] Bound direct socket to physical interface" << interfaceIndex;
        return;
    }
    const int error = WSAGetLastError();
    qCWarning(lcRuvod) << "[TCP-NAT] Failed to bind to physical interface" << interfaceIndex << "- Error:" << error;
}

} // namespace

Socket connectDirectly(std::uint32_t address, std::uint16_t port, std::uint32_t physicalInterface, HANDLE stopEvent)
{
    qCCritical(lcRuvod).nospace().noquote()
        << "[TCP-NAT] Using DIRECT routing to " << formatIpv4(address) << ":" << port;
    Socket socket(openSocket(SOCK_STREAM, IPPROTO_TCP));
    if (!socket) {
        const int error = WSAGetLastError();
        qCWarning(lcRuvod) << "[TCP-NAT] Failed to create direct socket:" << error;
        return {};
    }
    if (physicalInterface != 0)
        bindToInterface(socket.get(), physicalInterface);
    SocketWait wait(stopEvent);
    const int error =
        connectWithin(wait, socket.get(), socketAddress(address, port), SocketWait::Clock::now() + connectTimeout);
    if (error != NO_ERROR) {
        qCWarning(lcRuvod).nospace().noquote() << "[TCP-NAT] Failed to connect directly to " << formatIpv4(address)
                                               << ":" << port << " - Error: " << error;
        return {};
    }
    return socket;
}

} // namespace ruvo
