#include "windows/tun/tunnel_test.h"

#include "packet/packet_builder.h"
#include "packet/packet_headers.h"
#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/io/winsock_test.h"
#include "windows/support/import_redirection.h"
#include "windows/support/own_resources.h"
#include "windows/tun/sends_of_this_thread.h"

#include <gmock/gmock.h>

#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace ruvo::test {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::SizeIs;
using Clock = std::chrono::steady_clock;

void TunnelTest::SetUpTestSuite()
{
    WSADATA data;
    ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
}

void TunnelTest::TearDownTestSuite()
{
    WSACleanup();
}

void TunnelTest::SetUp()
{
    NamespaceTest::SetUp();
    m_tunnel = std::make_unique<Tunnel>();
}

void TunnelTest::TearDown()
{
    m_tunnel.reset();
    NamespaceTest::TearDown();
}

std::expected<void, std::string> TunnelTest::start(std::uint32_t address)
{
    return m_tunnel->start(adapterName, address, prefixLength, libraryPath());
}

std::string TunnelTest::startError(std::uint32_t address)
{
    const auto started = start(address);
    return started ? std::string() : started.error();
}

void TunnelTest::startTowards(std::uint16_t proxyPort)
{
    startWith({.proxyPort = proxyPort});
}

void TunnelTest::startWith(const TunnelSettings &settings)
{
    m_tunnel = std::make_unique<Tunnel>(settings);
    ASSERT_EQ(startError(), "");
    ASSERT_EQ(linuxOutput("ip route add 203.0.113.0/24 dev test"), "");
    m_log.clear();
}

std::vector<std::string> TunnelTest::calls()
{
    const QStringList beside = {"WintunGetAdapterLUID", "WintunGetRunningDriverVersion", "WintunGetReadWaitEvent"};
    std::vector<std::string> calls;
    for (const std::string &line : journal("\"call\":")) {
        const QString call = QJsonDocument::fromJson(QByteArray::fromStdString(line)).object()["call"].toString();
        const bool changes = call.startsWith("Create") || call.startsWith("Set") || call.startsWith("Delete");
        const bool isIpHelper = call.contains("Entry") || call.contains("Dns");
        const bool isWintun = call.startsWith("Wintun") && !beside.contains(call);
        if (isWintun || (changes && isIpHelper) || call.startsWith("FwpmEngine"))
            calls.push_back(call.toStdString());
    }
    return calls;
}

namespace {

/// The lines of `log` that are among `wanted`, in order: what else is logged does not matter.
QStringList only(const QStringList &wanted, const QStringList &log)
{
    QStringList found;
    for (const QString &line : log) {
        if (wanted.contains(line))
            found.append(line);
    }
    return found;
}

/// As many hardware threads as `mask` has bits.
class HardwareThreads
{
public:
    explicit HardwareThreads(DWORD_PTR mask)
        : m_redirection([mask](HANDLE, PDWORD_PTR process, PDWORD_PTR system) -> BOOL {
            *process = mask;
            *system = mask;
            return TRUE;
        })
    {}

private:
    const ImportRedirection<IMPORT(GetProcessAffinityMask)> m_redirection;
};

/// SYNs from the tunnel's address, as fast as they can be sent and each of another port, until there is no tunnel. Of
/// checksums there is only the kernel's: the tunnel makes new ones.
constexpr char floodOfOpenings[] = R"py(timeout 30 python3 -c '
import socket, struct
raw = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW)
ends = socket.inet_aton("10.6.7.1") + socket.inet_aton("203.0.113.9")
try:
    for count in range(100000000):
        if count % 100 == 0:
            socket.if_nametoindex("test")
        raw.sendto(struct.pack(">BBHHHBBH8sHHIIBBHHH", 0x45, 0, 40, 0, 0, 64, 6, 0, ends,
                               1024 + count % 60000, 80, count, 0, 0x50, 2, 65535, 0, 0), ("203.0.113.9", 0))
except OSError:
    pass
')py";

/// How many packets the interface has got from the tunnel ("rx") or given to it ("tx").
std::uint64_t packetsOfLink(const std::string &direction)
{
    return std::stoull(linuxOutput("ip -s -json link show test | grep -o '\"" + direction
                                   + "\":{[^}]*' | grep -o '\"packets\":[0-9]*' | cut -d : -f 2"));
}

} // namespace

TEST_F(TunnelTest, comesUpStepByStepAndSaysSo)
{
    ASSERT_EQ(startError(), "");
    EXPECT_TRUE(m_tunnel->isRunning());
    EXPECT_THAT(calls(), ElementsAre("WintunOpenAdapter", "WintunCreateAdapter", "CreateUnicastIpAddressEntry",
                                     "CreateIpForwardEntry2", "SetIpInterfaceEntry", "SetInterfaceDnsSettings",
                                     "FwpmEngineOpen0", "WintunStartSession"));
    const QStringList wanted = {
        "DEBUG NAT client IP (gateway/DNS, not assigned): \"10.6.7.2\"",
        "DEBUG Set interface gateway to \"10.6.7.2\"",
        "WARNING [RUVO-TUN] \u2713 Set interface metric to 0 with ForwardingEnabled and MTU 1500",
        "DEBUG Configuring DNS hijacking: DNS server = \"10.6.7.2\" (TUN IP + 1)",
        "DEBUG DNS servers configured via API: 10.6.7.2",
        "DEBUG IPv6 DNS servers configured: ",
        "DEBUG \u2713 DNS resolver cache flushed",
        "DEBUG Tunnel started on \"test\"",
        "DEBUG Tunnel IP: 10.6.7.1/30",
        "DEBUG Proxy: 127.0.0.1:10808",
        QString("DEBUG IOCP workers: %1 (fully async)").arg(std::thread::hardware_concurrency()),
    };
    EXPECT_EQ(only(wanted, m_log.lines()), wanted);
    EXPECT_THAT(journal("\"WintunStartSession\"").front(), HasSubstr("\"capacity\":16777216"));
    EXPECT_THAT(journal("\"WintunCreateAdapter\"").front(), HasSubstr("\"tunnel-type\":\"SocksTunnel\""));
    EXPECT_EQ(addressesOf("test"), "10.6.7.1/30\n");
    EXPECT_THAT(tunLinks(), HasSubstr(" mtu 1500 "));
    EXPECT_EQ(std::to_string(m_tunnel->adapterIndex()) + '\n', linuxOutput("ip -o link show test | cut -d : -f 1"));
    EXPECT_NE(m_tunnel->adapterLuid(), 0u);
}

TEST_F(TunnelTest, saysWhereItsListenerIs)
{
    ASSERT_EQ(startError(), "");
    const QStringList lines = m_log.linesWith("INFO [TCP-NAT] Listener port assigned by OS:");
    ASSERT_EQ(lines.size(), 1);
    const QString port = lines[0].section(": ", -1);
    EXPECT_THAT(linuxOutput("ss -Hltn 'sport = :" + port.toStdString() + "'"), HasSubstr("10.6.7.1:"));
    EXPECT_EQ(m_log.linesWith("[UDP-NAT] Initialized for SOCKS5 UDP forwarding (proxy:10808, direct:20808)").size(),
              1);
    m_tunnel->stop();
    EXPECT_EQ(linuxOutput("ss -Hltn 'sport = :" + port.toStdString() + "'"), "");
}

TEST_F(TunnelTest, goesDownInOrder)
{
    ASSERT_EQ(startError(), "");
    clearBenchFolder();
    m_log.clear();
    m_tunnel->stop();
    EXPECT_FALSE(m_tunnel->isRunning());
    EXPECT_EQ(m_tunnel->operationsInFlight(), 0);
    EXPECT_THAT(calls(), ElementsAre("FwpmEngineClose0", "WintunEndSession", "WintunCloseAdapter"));
    EXPECT_THAT(journal("\"WintunEndSession\"").front(), HasSubstr("\"unreleased\":false,\"unsent\":false"));
    EXPECT_EQ(m_log.lines().constLast(), "DEBUG Tunnel stopped");
    EXPECT_EQ(m_log.linesWith("WARNING"), QStringList());
    EXPECT_EQ(tunLinks(), "");
    EXPECT_EQ(GetModuleHandleW(L"wintun.dll"), nullptr);
    EXPECT_EQ(m_tunnel->adapterIndex(), 0u);
}

TEST_F(TunnelTest, isStoppedOnceAndOnlyIfItRuns)
{
    m_tunnel->stop();
    EXPECT_EQ(m_log.lines(), QStringList());
    ASSERT_EQ(startError(), "");
    m_tunnel->stop();
    m_log.clear();
    m_tunnel->stop();
    EXPECT_EQ(m_log.lines(), QStringList());
}

TEST_F(TunnelTest, isNotStartedASecondTime)
{
    ASSERT_EQ(startError(), "");
    const std::size_t threads = OwnResources::now().threads;
    clearBenchFolder();
    m_log.clear();
    EXPECT_EQ(startError(0x0A080001), "");
    EXPECT_THAT(calls(), SizeIs(0));
    EXPECT_EQ(m_log.lines(), QStringList());
    EXPECT_EQ(OwnResources::now().threads, threads);
    EXPECT_EQ(addressesOf("test"), "10.6.7.1/30\n");
}

TEST_F(TunnelTest, hasAWorkerForEachHardwareThread)
{
    const HardwareThreads eight(0xFF);
    const std::size_t before = OwnResources::now().threads;
    ASSERT_EQ(startError(), "");
    EXPECT_TRUE(m_log.contains("DEBUG IOCP workers: 8 (fully async)"));
    // Flow control and the reader besides, and whatever the library and the relays have.
    EXPECT_GE(OwnResources::now().threads, before + 8 + 2);
    m_tunnel->stop();
    EXPECT_TRUE(waitUntil([before] { return OwnResources::now().threads <= before; }));
}

TEST_F(TunnelTest, hasOneWorkerForOneHardwareThread)
{
    const HardwareThreads one(1);
    ASSERT_EQ(startError(), "");
    EXPECT_TRUE(m_log.contains("DEBUG IOCP workers: 1 (fully async)"));
}

TEST_F(TunnelTest, goesWithItsObject)
{
    ASSERT_EQ(startError(), "");
    m_log.clear();
    m_tunnel.reset();
    EXPECT_EQ(m_log.lines().constLast(), "DEBUG Tunnel stopped");
    EXPECT_EQ(tunLinks(), "");
}

TEST_F(TunnelTest, startsAgainAfterAStop)
{
    for (const std::uint32_t address : {tunnelIp, tunnelIp, std::uint32_t{0x0A080001}}) {
        ASSERT_EQ(startError(address), "");
        EXPECT_TRUE(m_tunnel->isRunning());
        m_tunnel->stop();
    }
}

TEST_F(TunnelTest, usesAnAdapterThatStaysUnderAnotherAddressEachTime)
{
    makeAdapter("test");
    for (const std::uint32_t address : {tunnelIp, std::uint32_t{0x0A080001}}) {
        ASSERT_EQ(startError(address), "");
        EXPECT_TRUE(m_tunnel->isRunning());
        m_tunnel->stop();
    }
    EXPECT_THAT(tunLinks(), HasSubstr(": kept: "));
    EXPECT_EQ(addressesOf("kept"), "10.6.7.1/30 10.8.0.1/30\n");
    // The default route of its gateway stays with the adapter too.
    EXPECT_THAT(routes("default dev kept"), HasSubstr("via 10.6.7.2"));
}

TEST_F(TunnelTest, doesNotRunAnyMoreWhenItsAdapterIsGone)
{
    ASSERT_EQ(startError(), "");
    ASSERT_EQ(linuxOutput("ip link delete test"), "");
    EXPECT_TRUE(waitUntil([this] { return !m_tunnel->isRunning(); }));
    m_tunnel->stop(); // what is left of it
    EXPECT_TRUE(m_log.contains("DEBUG Tunnel stopped"));
    ASSERT_EQ(startError(), "");
    EXPECT_TRUE(m_tunnel->isRunning());
}

TEST_F(TunnelTest, doesNotRunAnyMoreWhenItsReaderDied)
{
    ASSERT_EQ(startError(), "");
    fail("WintunReceivePacket", ERROR_INVALID_DATA);
    EXPECT_TRUE(waitUntil([this] {
        linuxOutput("ping -c 1 -W 1 10.6.7.2 >/dev/null; true"); // something to read
        return !m_tunnel->isRunning();
    }));
    EXPECT_TRUE(m_log.contains("WARNING Packet read failed: 13"));
    failNothing();
    m_tunnel->stop();
    ASSERT_EQ(startError(), "");
    EXPECT_TRUE(m_tunnel->isRunning());
}

TEST_F(TunnelTest, dropsPacketsWhileItDoesNotRun)
{
    const SendsOfThisThread sends;
    std::uint16_t port = 40000;
    const auto dispatchOpening = [&] {
        const PacketBytes packet = buildTcpPacket(tunnelIp, port++, 0xCB007109, 80, 1, 0, tcpSyn, nullptr, 0);
        m_tunnel->dispatchPacket(packet.data(), packet.size());
    };
    dispatchOpening();
    EXPECT_EQ(sends.count(), 0);
    ASSERT_EQ(startError(), "");
    dispatchOpening();
    EXPECT_EQ(sends.count(), 1) << "to the listener";
    m_tunnel->stop();
    dispatchOpening();
    EXPECT_EQ(sends.count(), 1);
    ASSERT_EQ(startError(), "");
    dispatchOpening();
    EXPECT_EQ(sends.count(), 2);
}

TEST_F(TunnelTest, choosesAmongThePortsThatItWasGiven)
{
    TunnelSettings settings{.proxyPort = 1001, .directPort = 2002, .bypassIps = {0x08080808}};
    settings.proxyProcesses = {L"mail.exe"};
    settings.directProcesses = {L"game.exe"};
    m_tunnel = std::make_unique<Tunnel>(settings);
    m_tunnel->addDirectProcess(L"chat.exe");
    m_tunnel->addProxyProcess(L"news.exe");
    m_tunnel->addBypassIp(0x01010101);
    EXPECT_EQ(m_tunnel->bypassIps(), (std::set<std::uint32_t>{0x01010101, 0x08080808}));
    EXPECT_EQ(m_tunnel->decide(L"C:\\GAME.exe", 0x5DB8D822, 443), (UpstreamDecision{2002, true}));
    EXPECT_EQ(m_tunnel->decide(L"C:\\news.exe", 0x5DB8D822, 443), (UpstreamDecision{1001, false}));
    EXPECT_EQ(m_tunnel->chooseUpstreamPort(L"C:\\GAME.exe", 0x5DB8D822, 443), 2002);
    EXPECT_EQ(m_tunnel->chooseUpstreamPort(L"C:\\chat.exe", 0x5DB8D822, 443), 2002);
    EXPECT_EQ(m_tunnel->chooseUpstreamPort(L"C:\\mail.exe", 0x5DB8D822, 443), 1001);
    EXPECT_EQ(m_tunnel->chooseUpstreamPort({}, 0x08080808, 443), 2002);
    EXPECT_EQ(m_tunnel->chooseUpstreamPort({}, 0x01010101, 443), 2002);
    EXPECT_EQ(m_tunnel->chooseUpstreamPort({}, 0, 53), 2002);
    ASSERT_EQ(startError(), "");
    EXPECT_TRUE(m_log.contains("DEBUG Proxy: 127.0.0.1:1001"));
    EXPECT_TRUE(m_log.contains("(proxy:1001, direct:2002)"));
}

TEST_F(TunnelTest, isStoppedWhileItsWorkersStart)
{
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(startError(), "");
        const auto begin = Clock::now();
        m_tunnel->stop();
        EXPECT_LT(Clock::now() - begin, 5s);
        EXPECT_EQ(m_tunnel->operationsInFlight(), 0);
    }
    EXPECT_EQ(m_log.linesWith("still in flight"), QStringList());
}

TEST_F(TunnelTest, isStoppedWhilePacketsArriveAtFullSpeed)
{
    ASSERT_NO_FATAL_FAILURE(startTowards(closedPort()));
    LinuxCommand pings("ping -q -f -w 6 10.6.7.2");
    LinuxCommand openings(floodOfOpenings);
    EXPECT_TRUE(waitUntil([] { return packetsOfLink("tx") > 2000 && packetsOfLink("rx") > 1000; }));
    const auto begin = Clock::now();
    m_tunnel->stop();
    EXPECT_LT(Clock::now() - begin, 5s);
    EXPECT_EQ(m_tunnel->operationsInFlight(), 0);
    EXPECT_EQ(m_log.linesWith("still in flight"), QStringList());
    EXPECT_THAT(journal("\"WintunEndSession\"").back(), HasSubstr("\"unreleased\":false,\"unsent\":false"));
    EXPECT_TRUE(pings.wait());
    EXPECT_TRUE(openings.wait());
}

TEST_F(TunnelTest, leavesNothingBehindAfterManyLives)
{
    constexpr int cycles = 10;
    const auto live = [this] {
        m_tunnel = std::make_unique<Tunnel>();
        ASSERT_EQ(startError(), "");
        m_tunnel->stop();
        m_tunnel.reset();
    };
    for (int i = 0; i < 3; ++i) // what is made once stays
        ASSERT_NO_FATAL_FAILURE(live());
    const OwnResources before = OwnResources::now();
    for (int i = 0; i < cycles; ++i)
        ASSERT_NO_FATAL_FAILURE(live());
    EXPECT_TRUE(waitForHandles(before.handles));
    const OwnResources after = OwnResources::now();
    EXPECT_LE(after.handles, before.handles);
    EXPECT_LE(after.threads, before.threads);
    std::printf("before: %s\nafter %d tunnels: %s\n", before.text().c_str(), cycles, after.text().c_str());
}

} // namespace ruvo::test
