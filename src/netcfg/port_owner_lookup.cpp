#include "netcfg/port_owner_lookup.h"

#include "common/capped_log.h"
#include "common/log_category.h"
#include "common/windows_handles.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>
#include <vector>

namespace ruvo {

namespace {

constexpr std::uint32_t idlePid = 0;
constexpr std::uint32_t systemPid = 4;

// Connections open between the call that asks for the size and the one that fills the buffer, at thousands a second
// while a browser starts. Without room for them that look-up fails, and the connection loses its program's rule.
constexpr DWORD rowsInBetween = 256;

/// The rows of one of the tables with owners; `read` is its function with all arguments but buffer and size.
template<typename Table, typename Row>
class OwnerTable
{
public:
    template<typename Read>
    OwnerTable(const char *name, Read read)
    {
        DWORD size = 0;
        if (read(nullptr, &size) != ERROR_INSUFFICIENT_BUFFER)
            return;
        size += rowsInBetween * sizeof(Row);
        m_buffer.resize(size);
        const DWORD error = read(m_buffer.data(), &size);
        if (error != NO_ERROR) {
            m_buffer.clear();
            static CappedLog s_failures(10, 100); // of this table: one comes with each connection that is made
            if (s_failures.take())
                qCWarning(lcRuvod).nospace() << name << " failed: " << error;
        }
    }

    /// 0 if there is none. What is nobody's any more (as in TIME_WAIT) has the process id 0, and the row of whoever
    /// has the port now may stand behind it.
    template<typename Matches>
    std::uint32_t ownerOfFirst(Matches matches) const
    {
        const auto row = std::ranges::find_if(
            rows(), [&](const Row &candidate) { return candidate.dwOwningPid != idlePid && matches(candidate); });
        return row == rows().end() ? 0 : row->dwOwningPid;
    }

private:
    std::span<const Row> rows() const
    {
        if (m_buffer.empty())
            return {};
        const auto *table = reinterpret_cast<const Table *>(m_buffer.data());
        return {table->table, table->dwNumEntries};
    }

    std::vector<std::byte> m_buffer;
};

/// The tables hold a port in network order in the lower half; the upper half may hold anything.
std::uint16_t hostPort(DWORD port)
{
    return ntohs(static_cast<u_short>(port));
}

OwnerTable<MIB_TCPTABLE_OWNER_PID, MIB_TCPROW_OWNER_PID> tcpTable()
{
    return {"GetExtendedTcpTable", [](void *buffer, DWORD *size) {
                return GetExtendedTcpTable(buffer, size, FALSE, AF_INET, TCP_TABLE_OWNER_PID_ALL, 0);
            }};
}

OwnerTable<MIB_TCP6TABLE_OWNER_PID, MIB_TCP6ROW_OWNER_PID> tcpTableIpv6()
{
    return {"GetExtendedTcpTable", [](void *buffer, DWORD *size) {
                return GetExtendedTcpTable(buffer, size, FALSE, AF_INET6, TCP_TABLE_OWNER_PID_ALL, 0);
            }};
}

OwnerTable<MIB_UDPTABLE_OWNER_PID, MIB_UDPROW_OWNER_PID> udpTable()
{
    return {"GetExtendedUdpTable", [](void *buffer, DWORD *size) {
                return GetExtendedUdpTable(buffer, size, FALSE, AF_INET, UDP_TABLE_OWNER_PID, 0);
            }};
}

OwnerTable<MIB_UDP6TABLE_OWNER_PID, MIB_UDP6ROW_OWNER_PID> udpTableIpv6()
{
    return {"GetExtendedUdpTable", [](void *buffer, DWORD *size) {
                return GetExtendedUdpTable(buffer, size, FALSE, AF_INET6, UDP_TABLE_OWNER_PID, 0);
            }};
}

using Ipv6Address = std::array<std::uint8_t, 16>;

Ipv6Address ipv6Address(const UCHAR (&bytes)[16])
{
    return std::to_array(bytes);
}

/// How an IPv4 address (host order) stands in an IPv6 table: RFC 4291 section 2.5.5.2.
Ipv6Address mapped(std::uint32_t address)
{
    Ipv6Address result{};
    result[10] = result[11] = 0xFF;
    for (std::size_t i = 0; i < 4; ++i)
        result[12 + i] = static_cast<std::uint8_t>(address >> (24 - 8 * i));
    return result;
}

} // namespace

// A socket for both families stands in the IPv6 tables, whatever it carries.

std::uint32_t PortOwnerLookup::tcpOwnerPid(std::uint16_t localPort, std::uint32_t remoteAddress,
                                           std::uint16_t remotePort)
{
    const std::uint32_t owner = tcpTable().ownerOfFirst([=](const MIB_TCPROW_OWNER_PID &row) {
        return hostPort(row.dwLocalPort) == localPort && ntohl(row.dwRemoteAddr) == remoteAddress
               && hostPort(row.dwRemotePort) == remotePort;
    });
    if (owner != 0)
        return owner;
    return tcpTableIpv6().ownerOfFirst([=, remote = mapped(remoteAddress)](const MIB_TCP6ROW_OWNER_PID &row) {
        return hostPort(row.dwLocalPort) == localPort && ipv6Address(row.ucRemoteAddr) == remote
               && hostPort(row.dwRemotePort) == remotePort;
    });
}

std::uint32_t PortOwnerLookup::udpOwnerPid(std::uint16_t localPort)
{
    const std::uint32_t owner = udpTable().ownerOfFirst(
        [=](const MIB_UDPROW_OWNER_PID &row) { return hostPort(row.dwLocalPort) == localPort; });
    if (owner != 0)
        return owner;
    return udpTableIpv6().ownerOfFirst(
        [=](const MIB_UDP6ROW_OWNER_PID &row) { return hostPort(row.dwLocalPort) == localPort; });
}

std::uint32_t PortOwnerLookup::udpOwnerPid(const Endpoint &local)
{
    const auto table = udpTable();
    for (const std::uint32_t address : {local.address, std::uint32_t{INADDR_ANY}}) {
        const std::uint32_t owner = table.ownerOfFirst([&](const MIB_UDPROW_OWNER_PID &row) {
            return hostPort(row.dwLocalPort) == local.port && ntohl(row.dwLocalAddr) == address;
        });
        if (owner != 0)
            return owner;
    }
    return udpTableIpv6().ownerOfFirst([&, own = mapped(local.address)](const MIB_UDP6ROW_OWNER_PID &row) {
        const Ipv6Address address = ipv6Address(row.ucLocalAddr);
        return hostPort(row.dwLocalPort) == local.port && (address == own || address == Ipv6Address());
    });
}

std::wstring PortOwnerLookup::processImage(std::uint32_t pid)
{
    if (pid == idlePid)
        return L":System Idle Process";
    if (pid == systemPid)
        return L":System";

    const KernelHandle process(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, pid));
    std::array<wchar_t, MAX_PATH> path;
    DWORD length = static_cast<DWORD>(path.size());
    if (!process || !QueryFullProcessImageNameW(process.get(), 0, path.data(), &length))
        return L"[PID:" + std::to_wstring(pid) + L"]";
    return {path.data(), length};
}

std::wstring PortOwnerLookup::tcpOwner(std::uint16_t localPort, std::uint32_t remoteAddress, std::uint16_t remotePort)
{
    const std::uint32_t pid = tcpOwnerPid(localPort, remoteAddress, remotePort);
    return pid == 0 ? std::wstring() : processImage(pid);
}

std::wstring PortOwnerLookup::udpOwner(std::uint16_t localPort)
{
    const std::uint32_t pid = udpOwnerPid(localPort);
    return pid == 0 ? std::wstring() : processImage(pid);
}

} // namespace ruvo
