// Whose datagrams go to the proxy, and whose would only come back.

#include "windows/tun/tunnel_test.h"

#include "packet/packet_builder.h"
#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/io/socket_type.h"
#include "windows/io/winsock_test.h"
#include "windows/support/import_redirection.h"

#include <atomic>
#include <mutex>
#include <string>

namespace ruvo::test {
namespace {

constexpr std::uint32_t server = 0xCB007109; // 203.0.113.9
constexpr DWORD somePid = 0x7FFFFFF0;
constexpr std::uint32_t physical = 77;

/// Every UDP port belongs to the process that the test says, and runs the program that it says.
class TunnelUdpWay : public TunnelTest
{
protected:
    void startTunnel(TunnelSettings settings = {})
    {
        settings.proxyHost = L"127.0.0.1";
        settings.proxyPort = settings.directPort = portOf(m_proxy.get());
        settings.alwaysDirectProcesses = {L"sing-box.exe"};
        ASSERT_NO_FATAL_FAILURE(startWith(settings));
        m_tunnel->setPhysicalInterface(physical);
    }
    void dispatch(std::uint32_t source, std::uint16_t port, Endpoint destination = {server, 443})
    {
        m_ports = port; // the table's
        const PacketBytes packet = buildUdpPacket(source, port, destination.address, destination.port,
                                                  reinterpret_cast<const std::uint8_t *>("x"), 1);
        m_tunnel->dispatchPacket(packet.data(), packet.size());
    }
    /// What is sent now goes to the proxy, after all that was sent before.
    void expectAssociations(int count)
    {
        EXPECT_TRUE(waitUntil([&] { return m_associations == count; })) << m_associations;
    }

    std::atomic<DWORD> m_owner = somePid;
    std::wstring m_image = L"C:\\Program Files\\browser.exe";
    std::atomic<int> m_lookUps = 0;
    std::atomic<int> m_associations = 0;
    std::atomic<int> m_bound = 0;

private:
    std::atomic<std::uint16_t> m_ports = 0;
    const Socket m_proxy = listeningSocket();
    const ImportRedirection<IMPORT(GetExtendedUdpTable)> m_table{
        [this](PVOID buffer, PDWORD size, WINBOOL, ULONG family, UDP_TABLE_CLASS, ULONG) -> DWORD {
            if (family != AF_INET)
                return ERROR_INVALID_PARAMETER;
            if (!buffer) {
                ++m_lookUps;
                *size = sizeof(MIB_UDPTABLE_OWNER_PID);
                return ERROR_INSUFFICIENT_BUFFER;
            }
            auto *table = static_cast<MIB_UDPTABLE_OWNER_PID *>(buffer);
            table->dwNumEntries = 1;
            table->table[0] = {htonl(tunnelIp), htons(m_ports), m_owner};
            return NO_ERROR;
        }};
    const ImportRedirection<IMPORT(OpenProcess)> m_open{[this](DWORD access, BOOL inherit, DWORD id) -> HANDLE {
        return id == somePid ? GetCurrentProcess() : m_open.real(access, inherit, id);
    }};
    const ImportRedirection<IMPORT(QueryFullProcessImageNameW)> m_name{
        [this](HANDLE, DWORD, LPWSTR buffer, PDWORD size) -> BOOL {
            buffer[m_image.copy(buffer, *size - 1)] = L'\0';
            *size = static_cast<DWORD>(m_image.size());
            return TRUE;
        }};
    const ImportRedirection<IMPORT(connect)> m_connect{[this](SOCKET socket, const sockaddr *peer, int size) {
        const auto port = ntohs(reinterpret_cast<const sockaddr_in *>(peer)->sin_port);
        m_associations += socketType(socket) == SOCK_STREAM && port == portOf(m_proxy.get());
        return m_connect.real(socket, peer, size);
    }};
    const ImportRedirection<IMPORT(setsockopt)> m_option{
        [this](SOCKET socket, int level, int option, const char *value, int size) {
            if (level != IPPROTO_IP || option != IP_UNICAST_IF)
                return m_option.real(socket, level, option, value, size);
            EXPECT_EQ(*reinterpret_cast<const DWORD *>(value), htonl(physical));
            ++m_bound;
            return 0;
        }};
};

TEST_F(TunnelUdpWay, ofAProgramIsTheProxy)
{
    ASSERT_NO_FATAL_FAILURE(startTunnel());
    dispatch(tunnelIp, 5000);
    expectAssociations(1);
    m_owner = 0;
    dispatch(tunnelIp, 5001);
    expectAssociations(2);
    EXPECT_EQ(m_lookUps, 2);
    EXPECT_EQ(m_bound, 0);
}

TEST_F(TunnelUdpWay, ofTheDaemonsOwnDatagramsLeadsNowhere)
{
    ASSERT_NO_FATAL_FAILURE(startTunnel());
    m_owner = GetCurrentProcessId();
    dispatch(tunnelIp, 5000);
    const QString line =
        "WARNING [UDP-NAT] Own datagram to 203.0.113.9:443 came back through the tunnel, dropping it";
    EXPECT_TRUE(waitUntil([&] { return m_log.contains(line); }));
    m_owner = somePid;
    dispatch(tunnelIp, 5001);
    expectAssociations(1);
    for (std::uint16_t i = 0; i < 20; ++i) {
        const int before = m_lookUps;
        m_owner = GetCurrentProcessId();
        dispatch(tunnelIp, static_cast<std::uint16_t>(5002 + i));
        EXPECT_TRUE(waitUntil([&] { return m_lookUps == before + 1; }));
    }
    m_tunnel->stop();
    EXPECT_EQ(m_associations, 1);
    EXPECT_EQ(m_log.linesWith(line).size(), 5) << "each is one round of a loop";
}

TEST_F(TunnelUdpWay, ofACoreIsThePhysicalInterface)
{
    ASSERT_NO_FATAL_FAILURE(startTunnel());
    m_image = L"C:\\Program Files\\SING-BOX.EXE";
    dispatch(tunnelIp, 5000);
    EXPECT_TRUE(waitUntil([this] { return m_bound == 1; }));
    m_image = L"C:\\browser.exe";
    dispatch(tunnelIp, 5001);
    expectAssociations(1);
}

// The lists of a client are about connections.
TEST_F(TunnelUdpWay, ofADirectProcessIsTheProxy)
{
    ASSERT_NO_FATAL_FAILURE(startTunnel({.directProcesses = {L"browser.exe"}}));
    dispatch(tunnelIp, 5000);
    expectAssociations(1);
    EXPECT_EQ(m_bound, 0);
}

TEST_F(TunnelUdpWay, isNotAskedForOfTheTunnelsResolverAndOfOtherMachines)
{
    ASSERT_NO_FATAL_FAILURE(startTunnel());
    m_owner = GetCurrentProcessId();
    dispatch(tunnelIp, 5000, {tunnelIp + 1, 53});
    expectAssociations(1);
    dispatch(0x0A060801, 5001); // its port is no port of this machine's
    expectAssociations(2);
    EXPECT_EQ(m_lookUps, 0);
}

} // namespace
} // namespace ruvo::test
