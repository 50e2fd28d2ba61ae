// The tables of IPv4 sockets with their owners: Wine's own have no owners, as its server holds the sockets.
// They are called for each connection: no line in the journal but for planned failures.

#include "kernel/socket_table.h"
#include "library/faults.h"
#include "netconfig/network_call.h"
#include "netconfig/socket_owners.h"

#include <algorithm>
#include <atomic>
#include <bit>

namespace {

using namespace ruvo::winehost;

DWORD tcpState(SocketState state)
{
    switch (state) {
    case SocketState::established: return MIB_TCP_STATE_ESTAB;
    case SocketState::synSent: return MIB_TCP_STATE_SYN_SENT;
    case SocketState::synReceived:
    case SocketState::newSynReceived: return MIB_TCP_STATE_SYN_RCVD;
    case SocketState::finWait1: return MIB_TCP_STATE_FIN_WAIT1;
    case SocketState::finWait2: return MIB_TCP_STATE_FIN_WAIT2;
    case SocketState::timeWait: return MIB_TCP_STATE_TIME_WAIT;
    case SocketState::closed: return MIB_TCP_STATE_CLOSED;
    case SocketState::closeWait: return MIB_TCP_STATE_CLOSE_WAIT;
    case SocketState::lastAck: return MIB_TCP_STATE_LAST_ACK;
    case SocketState::listening: return MIB_TCP_STATE_LISTEN;
    case SocketState::closing: return MIB_TCP_STATE_CLOSING;
    }
    return MIB_TCP_STATE_CLOSED;
}

DWORD networkPort(std::uint16_t port)
{
    return std::byteswap(port);
}

void fillRow(MIB_TCPROW_OWNER_PID &row, const InetSocket &socket)
{
    row.dwState = tcpState(socket.state);
    row.dwLocalAddr = std::byteswap(socket.localAddress);
    row.dwLocalPort = networkPort(socket.localPort);
    row.dwRemoteAddr = std::byteswap(socket.remoteAddress);
    row.dwRemotePort = networkPort(socket.remotePort);
    row.dwOwningPid = ownerOf(socket.inode);
}

void fillRow(MIB_UDPROW_OWNER_PID &row, const InetSocket &socket)
{
    row.dwLocalAddr = std::byteswap(socket.localAddress);
    row.dwLocalPort = networkPort(socket.localPort);
    row.dwOwningPid = ownerOf(socket.inode);
}

/// One of the two functions.
template<typename Table, typename Row, SocketKind kind>
class OwnerTable
{
public:
    explicit OwnerTable(std::string_view function) : m_function(function) {}

    DWORD call(void *buffer, DWORD *size, ULONG family, int tableClass, int wantedClass)
    {
        if (const auto fault = plannedFault(m_function)) {
            JournalEntry(m_function).add("result", false).add("error", *fault).add("planned", true);
            return *fault;
        }
        if (!size || family != AF_INET || tableClass != wantedClass)
            return ERROR_INVALID_PARAMETER;
        return buffer ? fill(static_cast<Table *>(buffer), *size) : tellSize(*size);
    }

private:
    static DWORD sizeOf(std::size_t count)
    {
        return static_cast<DWORD>(offsetof(Table, table) + count * sizeof(Row));
    }

    /// Of a table that was read a moment ago, and as much again: to read one only to count its rows would make
    /// every look-up of a busy program cost twice.
    DWORD tellSize(DWORD &size)
    {
        if (GetTickCount64() - m_counted >= countHoldsMs) {
            if (const auto sockets = listSockets(kind))
                count(sockets->size());
        }
        size = sizeOf(2 * m_count + spareRows);
        return ERROR_INSUFFICIENT_BUFFER;
    }

    void count(std::size_t rows)
    {
        m_count = rows;
        m_counted = GetTickCount64();
    }

    DWORD fill(Table *table, DWORD &size)
    {
        const auto sockets = listSockets(kind);
        if (!sockets)
            return windowsError(sockets.error());
        count(sockets->size());
        if (size < sizeOf(sockets->size()))
            return tellSize(size);
        table->dwNumEntries = static_cast<DWORD>(sockets->size());
        Row *row = table->table;
        for (const InetSocket &socket : *sockets)
            fillRow(*row++, socket);
        return NO_ERROR;
    }

    static constexpr std::size_t spareRows = 256;
    static constexpr ULONGLONG countHoldsMs = 50;
    const std::string_view m_function;
    std::atomic<std::size_t> m_count = 0;
    std::atomic<ULONGLONG> m_counted = 0;
};

OwnerTable<MIB_TCPTABLE_OWNER_PID, MIB_TCPROW_OWNER_PID, SocketKind::tcp> s_tcp("GetExtendedTcpTable");
OwnerTable<MIB_UDPTABLE_OWNER_PID, MIB_UDPROW_OWNER_PID, SocketKind::udp> s_udp("GetExtendedUdpTable");

} // namespace

extern "C" {

DWORD WINAPI GetExtendedTcpTable(PVOID table, PDWORD size, WINBOOL, ULONG family, TCP_TABLE_CLASS tableClass, ULONG)
{
    return s_tcp.call(table, size, family, tableClass, TCP_TABLE_OWNER_PID_ALL);
}

DWORD WINAPI GetExtendedUdpTable(PVOID table, PDWORD size, WINBOOL, ULONG family, UDP_TABLE_CLASS tableClass, ULONG)
{
    return s_udp.call(table, size, family, tableClass, UDP_TABLE_OWNER_PID);
}

} // extern "C"
