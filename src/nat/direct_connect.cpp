#include "nat/direct_connect.h"

#include "common/log_category.h"
#include "io/socket_options.h"

namespace ruvo {

namespace {

void bindToInterface(SOCKET socket, std::uint32_t interfaceIndex)
{
    if (setUnicastInterface(socket, interfaceIndex)) {
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
