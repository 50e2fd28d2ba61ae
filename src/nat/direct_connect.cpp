#include "nat/direct_connect.h"

#include "common/log_category.h"

namespace ruvo {

namespace {

/// Windows wants the index in network byte order here, unlike IPV6_UNICAST_IF.
void bindToInterface(SOCKET socket, std::uint32_t interfaceIndex, ConnectLog &log)
{
    const DWORD index = htonl(interfaceIndex);
    if (setsockopt(socket, IPPROTO_IP, IP_UNICAST_IF, reinterpret_cast<const char *>(&index), sizeof(index)) == 0) {
        qCDebug(lcRuvod) << "[TCP-NAT] Bound direct socket to physical interface" << interfaceIndex;
        return;
    }
    log.notBoundToInterface(interfaceIndex, WSAGetLastError());
}

} // namespace

PortExchangePlan directConnectPlan(const Endpoint &destination, std::uint32_t physicalInterface, ConnectLog &log)
{
    log.usingDirect(destination);
    PortExchangePlan plan{.peer = destination};
    if (physicalInterface != 0) {
        plan.prepare = [physicalInterface, &log](SOCKET socket) { bindToInterface(socket, physicalInterface, log); };
    }
    return plan;
}

} // namespace ruvo
