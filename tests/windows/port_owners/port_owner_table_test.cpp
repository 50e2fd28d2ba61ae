// The owner of a port, from tables that the test writes.

#include "netcfg/port_owner_lookup.h"

#include "common/winsock_headers.h"
#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "windows/support/import_redirection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace ruvo {
namespace {

using test::ImportRedirection;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint32_t server = 0xCB00710A; // 203.0.113.10
constexpr std::uint32_t otherServer = 0xCB007114;
constexpr std::uint32_t tunnel = 0x0A060701; // 10.6.7.1
constexpr std::uint32_t uplink = 0xC0000202;

using Ipv6Address = std::array<std::uint8_t, 16>;
constexpr Ipv6Address anyIpv6{};
constexpr Ipv6Address serverIpv6{0x20, 0x01, 0x0D, 0xB8, 0, 0, 0, 0, 0, 0, 0, 0, 0xCB, 0x00, 0x71, 0x0A};
constexpr Ipv6Address mappedServer{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xCB, 0x00, 0x71, 0x0A};
constexpr Ipv6Address mappedTunnel{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0x0A, 0x06, 0x07, 0x01};
constexpr Ipv6Address mappedUplink{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xC0, 0x00, 0x02, 0x02};

MIB_TCPROW_OWNER_PID tcpRow(std::uint32_t localAddress, std::uint16_t localPort, std::uint32_t remoteAddress,
                            std::uint16_t remotePort, DWORD pid, DWORD state = MIB_TCP_STATE_ESTAB)
{
    return {state, htonl(localAddress), htons(localPort), htonl(remoteAddress), htons(remotePort), pid};
}

MIB_UDPROW_OWNER_PID udpRow(std::uint32_t localAddress, std::uint16_t localPort, DWORD pid)
{
    return {htonl(localAddress), htons(localPort), pid};
}

void setAddress(UCHAR (&bytes)[16], const Ipv6Address &address)
{
    std::ranges::copy(address, bytes);
}

MIB_TCP6ROW_OWNER_PID tcpRowIpv6(const Ipv6Address &local, std::uint16_t localPort, const Ipv6Address &remote,
                                 std::uint16_t remotePort, DWORD pid)
{
    MIB_TCP6ROW_OWNER_PID row{};
    setAddress(row.ucLocalAddr, local);
    setAddress(row.ucRemoteAddr, remote);
    row.dwLocalPort = htons(localPort);
    row.dwRemotePort = htons(remotePort);
    row.dwState = MIB_TCP_STATE_ESTAB;
    row.dwOwningPid = pid;
    return row;
}

MIB_UDP6ROW_OWNER_PID udpRowIpv6(const Ipv6Address &local, std::uint16_t localPort, DWORD pid)
{
    MIB_UDP6ROW_OWNER_PID row{};
    setAddress(row.ucLocalAddr, local);
    row.dwLocalPort = htons(localPort);
    row.dwOwningPid = pid;
    return row;
}

/// One of the tables, as Windows hands it out.
template<typename Table, typename Row>
struct FakeTable
{
    std::vector<Row> rows;
    std::vector<Row> rowsInBetween; ///< that come after the first call
    DWORD sizeError = ERROR_INSUFFICIENT_BUFFER;
    DWORD fillError = NO_ERROR;
    std::vector<DWORD> families = {};
    std::vector<int> classes = {};
    int sizeCalls = 0;
    int fillCalls = 0;

    DWORD answer(void *buffer, DWORD *size, BOOL sorted, ULONG family, int tableClass)
    {
        EXPECT_FALSE(sorted);
        families.push_back(family);
        classes.push_back(tableClass);
        const auto sizeNeeded = [this] {
            return static_cast<DWORD>(offsetof(Table, table) + rows.size() * sizeof(Row));
        };
        if (!buffer) {
            ++sizeCalls;
            *size = sizeNeeded();
            rows.insert(rows.end(), rowsInBetween.begin(), rowsInBetween.end());
            return sizeError;
        }
        ++fillCalls;
        if (fillError != NO_ERROR)
            return fillError;
        if (*size < sizeNeeded())
            return ERROR_INSUFFICIENT_BUFFER;
        auto *table = static_cast<Table *>(buffer);
        table->dwNumEntries = static_cast<DWORD>(rows.size());
        std::ranges::copy(rows, table->table);
        return NO_ERROR;
    }
};

class PortOwnerTable : public testing::Test
{
protected:
    FakeTable<MIB_TCPTABLE_OWNER_PID, MIB_TCPROW_OWNER_PID> m_tcp;
    FakeTable<MIB_UDPTABLE_OWNER_PID, MIB_UDPROW_OWNER_PID> m_udp;
    FakeTable<MIB_TCP6TABLE_OWNER_PID, MIB_TCP6ROW_OWNER_PID> m_tcpIpv6;
    FakeTable<MIB_UDP6TABLE_OWNER_PID, MIB_UDP6ROW_OWNER_PID> m_udpIpv6;
    test::LogCapture m_log;

private:
    const ImportRedirection<IMPORT(GetExtendedTcpTable)> m_getTcp{
        [this](PVOID table, PDWORD size, WINBOOL sorted, ULONG family, TCP_TABLE_CLASS tableClass, ULONG) {
            return family == AF_INET6 ? m_tcpIpv6.answer(table, size, sorted, family, tableClass)
                                      : m_tcp.answer(table, size, sorted, family, tableClass);
        }};
    const ImportRedirection<IMPORT(GetExtendedUdpTable)> m_getUdp{
        [this](PVOID table, PDWORD size, WINBOOL sorted, ULONG family, UDP_TABLE_CLASS tableClass, ULONG) {
            return family == AF_INET6 ? m_udpIpv6.answer(table, size, sorted, family, tableClass)
                                      : m_udp.answer(table, size, sorted, family, tableClass);
        }};
};

TEST_F(PortOwnerTable, tellsWhoseTheConnectionIs)
{
    m_tcp.rows = {tcpRow(tunnel, 50000, otherServer, 443, 20), tcpRow(tunnel, 50001, server, 443, 30),
                  tcpRow(tunnel, 50002, server, 80, 40)};
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(50001, server, 443), 30u);
    EXPECT_THAT(m_tcp.families, ElementsAre(DWORD{AF_INET}, DWORD{AF_INET}));
    EXPECT_THAT(m_tcp.classes, ElementsAre(TCP_TABLE_OWNER_PID_ALL, TCP_TABLE_OWNER_PID_ALL));
    EXPECT_THAT(m_log.lines(), IsEmpty());
}

TEST_F(PortOwnerTable, comparesLocalPortRemoteAddressAndRemotePort)
{
    m_tcp.rows = {tcpRow(tunnel, 50000, server, 443, 20)};
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(50000, server, 80), 0u);
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(50000, otherServer, 443), 0u);
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(50001, server, 443), 0u);
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(50000, server, 443), 20u);
}

TEST_F(PortOwnerTable, tellsPortsFromTheSamePortsInTheOtherByteOrder)
{
    m_tcp.rows = {tcpRow(tunnel, 0x1234, server, 0x5678, 20), tcpRow(tunnel, 0x3412, server, 0x7856, 30)};
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(0x1234, server, 0x5678), 20u);
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(0x3412, server, 0x7856), 30u);
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(0x1234, server, 0x7856), 0u);
}

TEST_F(PortOwnerTable, looksAtNeitherLocalAddressNorStateAndTakesTheFirstRow)
{
    m_tcp.rows = {tcpRow(uplink, 50000, server, 443, 20, MIB_TCP_STATE_TIME_WAIT),
                  tcpRow(tunnel, 50000, server, 443, 30)};
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(50000, server, 443), 20u);
    std::ranges::reverse(m_tcp.rows);
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(50000, server, 443), 30u);
}

// The same port, closed a moment ago and taken by another program.
TEST_F(PortOwnerTable, passesOverRowsOfNobody)
{
    m_tcp.rows = {tcpRow(tunnel, 50000, server, 443, 0, MIB_TCP_STATE_TIME_WAIT)};
    m_udp.rows = {udpRow(tunnel, 50000, 0)};
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(50000, server, 443), 0u);
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid(50000), 0u);
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid({tunnel, 50000}), 0u);
    m_tcp.rows.push_back(tcpRow(tunnel, 50000, server, 443, 30));
    m_udp.rows.push_back(udpRow(tunnel, 50000, 40));
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(50000, server, 443), 30u);
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid(50000), 40u);
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid({tunnel, 50000}), 40u);
}

TEST_F(PortOwnerTable, ignoresWhatStandsInTheUpperHalvesOfPorts)
{
    m_tcp.rows = {tcpRow(tunnel, 50000, server, 443, 20)};
    m_tcp.rows[0].dwLocalPort |= 0xABCD0000;
    m_tcp.rows[0].dwRemotePort |= 0x00010000;
    m_udp.rows = {udpRow(tunnel, 53, 30)};
    m_udp.rows[0].dwLocalPort |= 0xFFFF0000;
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(50000, server, 443), 20u);
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid(53), 30u);
}

TEST_F(PortOwnerTable, isReadAnewEachTime)
{
    m_tcp.rows = {tcpRow(tunnel, 50000, server, 443, 20)};
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(50000, server, 443), 20u);
    m_tcp.rows[0].dwOwningPid = 30;
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(50000, server, 443), 30u);
    EXPECT_EQ(m_tcp.sizeCalls, 2);
    EXPECT_EQ(m_tcp.fillCalls, 2);
}

TEST_F(PortOwnerTable, mayGrowWhileItIsRead)
{
    for (std::uint16_t port = 1; port <= 100; ++port) {
        m_tcp.rowsInBetween.push_back(tcpRow(tunnel, port, otherServer, 80, 10));
        m_udp.rowsInBetween.push_back(udpRow(tunnel, port, 10));
    }
    m_tcp.rowsInBetween.push_back(tcpRow(tunnel, 50000, server, 443, 20));
    m_udp.rowsInBetween.push_back(udpRow(tunnel, 50000, 30));
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(50000, server, 443), 20u);
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid(50000), 30u);
    EXPECT_THAT(m_log.lines(), IsEmpty());
}

TEST_F(PortOwnerTable, mayGrowByAsMuchAsIsKeptFreeForItAndNoMore)
{
    constexpr std::size_t room = 256;
    m_tcp.rowsInBetween.assign(room, tcpRow(tunnel, 1, otherServer, 80, 10));
    m_tcp.rowsInBetween.back() = tcpRow(tunnel, 50000, server, 443, 20);
    m_udp.rowsInBetween.assign(room, udpRow(tunnel, 1, 10));
    m_udp.rowsInBetween.back() = udpRow(tunnel, 50000, 30);
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(50000, server, 443), 20u);
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid(50000), 30u);
    EXPECT_THAT(m_log.lines(), IsEmpty());

    m_tcp.rowsInBetween.resize(room + 1, tcpRow(tunnel, 1, otherServer, 80, 10));
    m_udp.rowsInBetween.resize(room + 1, udpRow(tunnel, 1, 10));
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(50000, server, 443), 0u);
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid(50000), 0u);
    EXPECT_THAT(m_log.lines(),
                ElementsAre("WARNING GetExtendedTcpTable failed: 122", "WARNING GetExtendedUdpTable failed: 122"));

    m_tcp.rowsInBetween.clear();
    m_udp.rowsInBetween.clear();
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(50000, server, 443), 20u) << "the next one finds it";
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid(50000), 30u);
}

TEST_F(PortOwnerTable, mayBeEmpty)
{
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(0, 0, 0), 0u);
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid(0), 0u);
    EXPECT_EQ(PortOwnerLookup::tcpOwner(50000, server, 443), L"");
    EXPECT_EQ(PortOwnerLookup::udpOwner(50000), L"");
    EXPECT_THAT(m_log.lines(), IsEmpty());
}

TEST_F(PortOwnerTable, tellsWhoseTheFirstSocketAtAUdpPortIsWhateverItsAddress)
{
    m_udp.rows = {udpRow(uplink, 52, 10), udpRow(uplink, 53, 20), udpRow(tunnel, 53, 30)};
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid(53), 20u);
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid(54), 0u);
    EXPECT_EQ(m_udp.families.front(), DWORD{AF_INET});
    EXPECT_EQ(m_udp.classes.front(), UDP_TABLE_OWNER_PID);
}

// Several programs may have one port number, each at an address of its own.
TEST_F(PortOwnerTable, prefersTheUdpSocketAtTheVeryAddress)
{
    m_udp.rows = {udpRow(INADDR_ANY, 50000, 10), udpRow(INADDR_LOOPBACK, 50000, 20), udpRow(tunnel, 50001, 30),
                  udpRow(tunnel, 50000, 40), udpRow(INADDR_LOOPBACK, 50002, 50)};
    m_udpIpv6.rows = {udpRowIpv6(mappedTunnel, 50000, 60)};
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid({tunnel, 50000}), 40u);
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid({uplink, 50000}), 10u) << "the one that is bound to no address";
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid({tunnel, 50002}), 0u) << "another address cannot send from this one";
}

TEST_F(PortOwnerTable, asksTheOtherFamilyWhereItHasNoRow)
{
    m_tcpIpv6.rows = {tcpRowIpv6(mappedTunnel, 50000, serverIpv6, 443, 10),
                      tcpRowIpv6(mappedTunnel, 50000, mappedServer, 443, 20)};
    m_udpIpv6.rows = {udpRowIpv6(serverIpv6, 50000, 30), udpRowIpv6(mappedUplink, 50000, 40),
                      udpRowIpv6(mappedTunnel, 50000, 50), udpRowIpv6(anyIpv6, 50001, 60)};
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(50000, server, 443), 20u);
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(50001, server, 443), 0u);
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(50000, server, 80), 0u);
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid(50000), 30u) << "whatever its address";
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid({tunnel, 50000}), 50u);
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid({tunnel, 50001}), 60u);
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid({tunnel, 50002}), 0u);
    m_tcp.rows = {tcpRow(tunnel, 50000, server, 443, 70)};
    m_udp.rows = {udpRow(tunnel, 50000, 80)};
    m_tcpIpv6.sizeCalls = m_udpIpv6.sizeCalls = 0;
    EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(50000, server, 443), 70u);
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid(50000), 80u);
    EXPECT_EQ(PortOwnerLookup::udpOwnerPid({tunnel, 50000}), 80u);
    EXPECT_EQ(m_tcpIpv6.sizeCalls + m_udpIpv6.sizeCalls, 0);
}

TEST_F(PortOwnerTable, hasNoOwnersIfItsSizeIsNotTold)
{
    m_tcp.rows = {tcpRow(tunnel, 50000, server, 443, 20)};
    m_udp.rows = {udpRow(tunnel, 53, 30)};
    for (const DWORD error : {DWORD{NO_ERROR}, DWORD{ERROR_INVALID_PARAMETER}}) {
        m_tcp.sizeError = m_udp.sizeError = error;
        EXPECT_EQ(PortOwnerLookup::tcpOwnerPid(50000, server, 443), 0u);
        EXPECT_EQ(PortOwnerLookup::udpOwnerPid(53), 0u);
    }
    EXPECT_EQ(m_tcp.fillCalls + m_udp.fillCalls, 0);
    EXPECT_THAT(m_log.lines(), IsEmpty());
}

TEST_F(PortOwnerTable, hasNoOwnersIfItCannotBeRead)
{
    m_tcp.rows = {tcpRow(tunnel, 50000, server, 443, 20)};
    m_udp.rows = {udpRow(tunnel, 53, 30)};
    m_tcp.fillError = ERROR_NOT_SUPPORTED;
    m_udp.fillError = ERROR_ACCESS_DENIED;
    EXPECT_EQ(PortOwnerLookup::tcpOwner(50000, server, 443), L"");
    EXPECT_EQ(PortOwnerLookup::udpOwner(53), L"");
    EXPECT_THAT(m_log.lines(),
                ElementsAre("WARNING GetExtendedTcpTable failed: 50", "WARNING GetExtendedUdpTable failed: 5"));
}

TEST_F(PortOwnerTable, tellsTheProgramOfAnOwner)
{
    m_tcp.rows = {tcpRow(tunnel, 50000, server, 443, GetCurrentProcessId()), tcpRow(tunnel, 50001, server, 443, 4),
                  tcpRow(tunnel, 50002, server, 443, 0)};
    m_udp.rows = {udpRow(tunnel, 53, GetCurrentProcessId())};
    wchar_t own[MAX_PATH] = {};
    GetModuleFileNameW(nullptr, own, MAX_PATH);
    EXPECT_EQ(PortOwnerLookup::tcpOwner(50000, server, 443), own);
    EXPECT_EQ(PortOwnerLookup::udpOwner(53), own);
    EXPECT_EQ(PortOwnerLookup::tcpOwner(50001, server, 443), L":System");
    // Nobody's any more, as in TIME_WAIT: that is no program, not the idle process.
    EXPECT_EQ(PortOwnerLookup::tcpOwner(50002, server, 443), L"");
}

// Counted for the whole process: the other tests may have taken two of these lines.
TEST_F(PortOwnerTable, saysTenTimesAndEveryHundredthThatItCannotBeRead)
{
    m_tcp.fillError = m_udp.fillError = ERROR_NOT_ENOUGH_MEMORY;
    for (int i = 0; i < 210; ++i) {
        PortOwnerLookup::tcpOwnerPid(50000, server, 443);
        PortOwnerLookup::udpOwnerPid(53);
    }
    for (const char *line : {"WARNING GetExtendedTcpTable failed: 8", "WARNING GetExtendedUdpTable failed: 8"}) {
        EXPECT_GE(m_log.linesWith(line).size(), 10);
        EXPECT_LE(m_log.linesWith(line).size(), 12);
    }
}

} // namespace
} // namespace ruvo
