#include "netcfg/port_owner_lookup.h"

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
            qCWarning(lcRuvod).nospace() << name << " failed: " << error;
            m_buffer.clear();
        }
    }

    template<typename Matches>
    std::uint32_t ownerOfFirst(Matches matches) const
    {
        const auto row = std::ranges::find_if(rows(), matches);
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

} // namespace

std::uint32_t PortOwnerLookup::tcpOwnerPid(std::uint16_t localPort, std::uint32_t remoteAddress,
                                           std::uint16_t remotePort)
{
    const OwnerTable<MIB_TCPTABLE_OWNER_PID, MIB_TCPROW_OWNER_PID> table(
        "GetExtendedTcpTable", [](void *buffer, DWORD *size) {
            return GetExtendedTcpTable(buffer, size, FALSE, AF_INET, TCP_TABLE_OWNER_PID_ALL, 0);
        });
    return table.ownerOfFirst([=](const MIB_TCPROW_OWNER_PID &row) {
        return hostPort(row.dwLocalPort) == localPort && ntohl(row.dwRemoteAddr) == remoteAddress
               && hostPort(row.dwRemotePort) == remotePort;
    });
}

std::uint32_t PortOwnerLookup::udpOwnerPid(std::uint16_t localPort)
{
    const OwnerTable<MIB_UDPTABLE_OWNER_PID, MIB_UDPROW_OWNER_PID> table(
        "GetExtendedUdpTable", [](void *buffer, DWORD *size) {
            return GetExtendedUdpTable(buffer, size, FALSE, AF_INET, UDP_TABLE_OWNER_PID, 0);
        });
    return table.ownerOfFirst(
        [=](const MIB_UDPROW_OWNER_PID &row) { return hostPort(row.dwLocalPort) == localPort; });
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
