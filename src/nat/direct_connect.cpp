#include "nat/direct_connect.h"

#include "common/log_category.h"
#include "io/socket_options.h"

namespace ruvo {

namespace {

void bindToInterface(SOCKET socket, std::uint32_t interfaceIndex, ConnectLog &log)
{
    if (setUnicastInterface(socket, interfaceIndex)) {
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
