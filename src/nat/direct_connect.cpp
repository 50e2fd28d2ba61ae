#include "nat/direct_connect.h"

#include "common/log_category.h"

namespace ruvo {

namespace {

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

PortExchangePlan directConnectPlan(const Endpoint &destination, std::uint32_t physicalInterface)
{
    qCCritical(lcRuvod).nospace().noquote() << "[TCP-NAT] Using DIRECT routing to " << formatEndpoint(destination);
    PortExchangePlan plan{.peer = destination};
    if (physicalInterface != 0) {
        plan.prepare = [physicalInterface](SOCKET socket) { bindToInterface(socket, physicalInterface); };
    }
    return plan;
}

} // namespace ruvo
