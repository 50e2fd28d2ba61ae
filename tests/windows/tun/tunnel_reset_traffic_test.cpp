// A connection reset while there is traffic: what goes, what goes on, and that nothing is left of the former.

#include "windows/tun/tunnel_test.h"

#include "packet/packet_builder.h"
#include "packet/packet_headers.h"
#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/nat/nat_test.h"
#include "windows/support/call_journal.h"

#include <gmock/gmock.h>

#include <fwpmu.h>
#include <process.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// A proxy that grants every request and sends everything back.
class EchoInbound
{
public:
    std::uint16_t port() const { return m_tcp.port(); }
    int streams() const { return m_streams; }
    int associations() const { return m_associations; }
    /// Connections that have not ended, of both kinds.
    int open() const { return m_open; }
    /// Bytes that went back.
    std::int64_t echoed() const { return m_echoed; }

    static constexpr int block = 1000;

private:
    void serve(ProxyConnection &client)
    {
        ++m_open;
        client.receive(3);
        client.send(QByteArray::fromHex("0500"));
        const QByteArray request = client.receive(10);
        if (request.size() == 10 && request[1] == 3) {
            QByteArray reply = QByteArray::fromHex("050000017f000001");
            const std::uint16_t udpPort = portOf(m_udp.get());
            reply.append(static_cast<char>(udpPort >> 8)).append(static_cast<char>(udpPort & 0xFF));
            client.send(reply);
            ++m_associations;
            client.waitForEnd();
        } else if (request.size() == 10) {
            client.send(QByteArray::fromHex("05000001000000000000"));
            ++m_streams;
            for (QByteArray bytes; (bytes = client.receive(block)).size() == block; m_echoed += block)
                client.send(bytes);
        }
        --m_open;
    }

    static Socket udpSocket()
    {
        Socket made(socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
        const sockaddr_in address = loopbackAddress(0);
        EXPECT_EQ(bind(made.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)), 0);
        return made;
    }

    const Socket m_udp = udpSocket();
    std::atomic<int> m_streams = 0;
    std::atomic<int> m_associations = 0;
    std::atomic<int> m_open = 0;
    std::atomic<std::int64_t> m_echoed = 0;
    ParallelProxy m_tcp{[this](ProxyConnection &client, int) { serve(client); }};
};

/// Programs beside the tunnel's own address, whose connections the engine takes: each sends blocks of 1000 bytes and
/// reads them back until there is no answer for 3 s, or `blocks` times, and says how it ended.
std::string engineUsers(int count, int blocks = 1'000'000)
{
    return R"py(timeout 60 python3 -c '
import socket, sys, threading
def use():
    try:
        with socket.create_connection(("203.0.113.9", 80), 10, ("192.0.2.2", 0)) as stream:
            stream.settimeout(3)
            for number in range(int(sys.argv[2])):
                stream.sendall(bytes(1000))
                left = 1000
                while left:
                    got = stream.recv(left)
                    if not got:
                        raise OSError("closed")
                    left -= len(got)
            sys.stdout.write("done\n")
    except OSError as error:
        sys.stdout.write(str(error) + "\n")
threads = [threading.Thread(target=use) for number in range(int(sys.argv[1]))]
for thread in threads:
    thread.start()
for thread in threads:
    thread.join()
' )py" + std::to_string(count)
           + ' ' + std::to_string(blocks);
}

/// Others, who begin anew whenever they are refused or have no answer, as long as the file `lease` is there.
std::string restlessUsers(const std::string &lease)
{
    return R"py(timeout 60 python3 -c '
import os, socket, sys, threading
def use():
    while os.path.exists(sys.argv[1]):
        try:
            with socket.create_connection(("203.0.113.9", 80), 0.3, ("192.0.2.2", 0)) as stream:
                stream.sendall(bytes(3000))
                while stream.recv(3000):
                    pass
        except OSError:
            pass
threads = [threading.Thread(target=use) for number in range(4)]
for thread in threads:
    thread.start()
for thread in threads:
    thread.join()
' )py" + lease;
}

class TunnelResetTraffic : public TunnelTest
{
protected:
    void TearDown() override
    {
        m_tunnel.reset(); // before the proxy, whose connections it holds
        TunnelTest::TearDown();
    }

    /// A datagram of the engine's flows: IPv6, which the NAT relay does not take.
    void dispatchDatagram(std::uint16_t port)
    {
        const QByteArray packet = QByteArray::fromHex("60000000000c1140"
                                                      "fd000000000000000000000000000001"
                                                      "20010db8000000000000000000000002")
                                      .append(static_cast<char>(port >> 8))
                                      .append(static_cast<char>(port & 0xFF))
                                  + QByteArray::fromHex("01bb000c0000") + "ping";
        m_tunnel->dispatchPacket(reinterpret_cast<const std::uint8_t *>(packet.constData()),
                                 static_cast<std::size_t>(packet.size()));
    }
    void waitForGate()
    {
        EXPECT_TRUE(waitUntil([this] { return m_log.contains("[RESET] Proxy marked ready"); }));
    }

    EchoInbound m_proxy;
};

TEST_F(TunnelResetTraffic, endsWhatTheEngineHoldsWithoutAWord)
{
    constexpr int streams = 5;
    constexpr int flows = 5;
    ASSERT_NO_FATAL_FAILURE(startTowards(m_proxy.port()));
    const std::int64_t idle = m_tunnel->operationsInFlight();
    LinuxCommand users(engineUsers(streams));
    for (std::uint16_t port = 5000; port < 5000 + flows; ++port)
        dispatchDatagram(port);
    ASSERT_TRUE(waitUntil([this] {
        return m_proxy.streams() == streams && m_proxy.associations() == flows && m_proxy.echoed() > 100'000;
    })) << m_log.lines().join('\n').toStdString();
    EXPECT_GT(m_tunnel->operationsInFlight(), idle);

    m_tunnel->resetConnections();
    EXPECT_TRUE(waitUntil([&] { return m_tunnel->operationsInFlight() == idle; })) << m_tunnel->operationsInFlight();
    EXPECT_TRUE(waitUntil([this] { return m_proxy.open() == 0; })) << m_proxy.open();

    // Nobody has told the applications: they get no answer any more.
    const auto ended = users.wait();
    ASSERT_TRUE(ended);
    EXPECT_EQ(ended->output, "timed out\ntimed out\ntimed out\ntimed out\ntimed out\n");
    EXPECT_EQ(m_proxy.streams(), streams);
    EXPECT_EQ(m_tunnel->operationsInFlight(), idle);

    waitForGate();
    EXPECT_EQ(linuxOutput(engineUsers(1, 10)), "done\n");
    dispatchDatagram(5000);
    EXPECT_TRUE(waitUntil([this] { return m_proxy.associations() == flows + 1; }));
    m_tunnel->stop();
    EXPECT_EQ(m_log.linesWith("still in flight"), QStringList());
}

TEST_F(TunnelResetTraffic, takesItsStepsInOrder)
{
    ASSERT_NO_FATAL_FAILURE(startTowards(m_proxy.port()));
    LinuxCommand user(engineUsers(1));
    dispatchDatagram(5000);
    ASSERT_TRUE(waitUntil([this] { return m_proxy.echoed() > 10'000 && m_proxy.associations() == 1; }));
    std::vector<std::string> names;
    {
        CallJournal calls;
        calls.watch<IMPORT(CancelIoEx)>();
        calls.watch<IMPORT(Sleep)>();
        calls.watch<IMPORT(closesocket)>();
        calls.watch<IMPORT(LoadLibraryW)>();
        calls.watch<IMPORT(GetIpInterfaceEntry)>();
        calls.watch<IMPORT(FwpmFilterGetById0)>(FailsWith::errorCode);
        calls.watch<IMPORT(_beginthreadex)>();
        m_tunnel->resetConnections();
        for (const std::string &line : calls.lines()) {
            const std::string name = line.starts_with("Sleep(") ? line : line.substr(0, line.find('('));
            const bool isNextFilter = name == "FwpmFilterGetById0" && names.back() == name;
            if (name != "Sleep(0)" && !isNextFilter) // the sleep belongs to the making of a thread
                names.push_back(name);
        }
    }
    EXPECT_THAT(names, ::testing::ElementsAre("CancelIoEx", // the stream's, the association's two
                                              "CancelIoEx", "CancelIoEx", "Sleep(0x64)",
                                              "closesocket", // the stream's
                                              "CancelIoEx", "CancelIoEx", "closesocket", "closesocket", // the flow's
                                              "LoadLibraryW", "GetIpInterfaceEntry", "FwpmFilterGetById0",
                                              "_beginthreadex"));
    m_tunnel->stop();
    EXPECT_TRUE(user.wait());
}

TEST_F(TunnelResetTraffic, isRepeatedWhileConnectionsBegin)
{
    ASSERT_NO_FATAL_FAILURE(startTowards(m_proxy.port()));
    const std::int64_t idle = m_tunnel->operationsInFlight();
    const std::string lease = QString::fromStdString(linuxOutput("mktemp")).trimmed().toStdString();
    LinuxCommand users(restlessUsers(lease));
    for (int i = 0; i < 4; ++i) {
        const int before = m_proxy.streams();
        EXPECT_TRUE(waitUntil([&] { return m_proxy.streams() >= before + 4; }));
        std::uint16_t port = 6000;
        for (int flow = 0; flow < 10; ++flow)
            dispatchDatagram(port++);
        m_tunnel->resetConnections();
    }
    EXPECT_EQ(linuxOutput("rm " + lease), "");
    EXPECT_TRUE(users.wait());
    m_tunnel->resetConnections();
    EXPECT_TRUE(waitUntil([&] { return m_tunnel->operationsInFlight() == idle; })) << m_tunnel->operationsInFlight();
    EXPECT_TRUE(waitUntil([this] { return m_proxy.open() == 0; })) << m_proxy.open();
}

/// Holds up every thread that logs a line with `text`, before anything comes of it, until it is let go.
class HeldUpLog
{
public:
    explicit HeldUpLog(const QString &text)
    {
        s_text = text;
        s_previous = qInstallMessageHandler(&handle);
    }
    ~HeldUpLog()
    {
        letGo();
        qInstallMessageHandler(s_previous);
    }
    bool isHolding() const { return s_isHolding; }
    void letGo() { SetEvent(s_letGo.get()); }

private:
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &message)
    {
        if (message.contains(s_text)) {
            s_isHolding = true;
            WaitForSingleObject(s_letGo.get(), 20'000);
        }
        s_previous(type, context, message);
    }

    inline static QString s_text;
    inline static QtMessageHandler s_previous = nullptr;
    inline static std::atomic<bool> s_isHolding = false;
    inline static const KernelHandle s_letGo{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
};

TEST_F(TunnelResetTraffic, endsAConnectionThatWasPastTheGateBeforeItWasShut)
{
    const Socket mute = listeningSocket();
    ASSERT_NO_FATAL_FAILURE(startWith({.directPort = portOf(mute.get()), .bypassIps = {0xCB007109}}));
    const std::int64_t idle = m_tunnel->operationsInFlight();
    const PacketBytes opening = buildTcpPacket(0xC0000209, 30000, 0xCB007109, 80, 1, 0, tcpSyn, nullptr, 0);
    HeldUpLog log("[PORT] destIp"); // as its way is decided, it stands in no table yet
    std::thread reader([&] { m_tunnel->dispatchPacket(opening.data(), opening.size()); });
    EXPECT_TRUE(waitUntil([&] { return log.isHolding(); }));
    std::int64_t meanwhile = 0;
    {
        const ImportRedirection<IMPORT(Sleep)> lateArrival([&](DWORD time) {
            if (time == 100 && reader.joinable()) { // the tables have just been emptied
                log.letGo();
                reader.join();
                meanwhile = m_tunnel->operationsInFlight();
            }
            lateArrival.real(time);
        });
        m_tunnel->resetConnections();
    }
    EXPECT_FALSE(reader.joinable());
    EXPECT_GT(meanwhile, idle) << "the engine connects";
    EXPECT_TRUE(waitUntil([&] { return m_tunnel->operationsInFlight() == idle; })) << m_tunnel->operationsInFlight();
}

TEST_F(TunnelResetTraffic, dropsDatagramsThatTheRelayDoesNotTakeMeanwhile)
{
    const KernelHandle goesOn(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    std::atomic<int> requests = 0;
    const ParallelProxy proxy([&](ProxyConnection &client, int) {
        client.receive(3);
        client.send(QByteArray::fromHex("0500"));
        if (client.receive(10).size() < 10)
            return;
        ++requests;
        WaitForSingleObject(goesOn.get(), 20'000);
        client.send(QByteArray::fromHex("05010001000000000000"));
    });
    ASSERT_NO_FATAL_FAILURE(startTowards(proxy.port()));
    const PacketBytes datagram =
        buildUdpPacket(tunnelIp, 5000, 0xCB007109, 443, reinterpret_cast<const std::uint8_t *>("ping"), 4);
    m_tunnel->dispatchPacket(datagram.data(), datagram.size());
    EXPECT_TRUE(waitUntil([&] { return requests == 1; }));
    m_tunnel->resetConnections();
    SetEvent(goesOn.get());
    EXPECT_TRUE(waitUntil([this] { return m_log.contains("[UDP-NAT] Failed to create SOCKS5 UDP session"); }));
    waitForGate();
    EXPECT_EQ(requests, 1) << "none for a flow of its own";

    m_tunnel->dispatchPacket(datagram.data(), datagram.size());
    EXPECT_TRUE(waitUntil([&] { return requests == 3; })) << "the relay's and the flow's";
    m_tunnel->stop();
}

TEST_F(TunnelResetTraffic, leavesRelaysAlone)
{
    const KernelHandle goesOn(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    std::atomic<bool> isRelayed = false;
    const ScriptedProxy proxy([&](ProxyConnection &client) {
        client.receive(3);
        client.send(QByteArray::fromHex("0500"));
        client.receive(10);
        client.send(QByteArray::fromHex("05000001000000000000"));
        const QByteArray said = client.receive(6);
        isRelayed = true;
        WaitForSingleObject(goesOn.get(), 20'000);
        client.send("you said " + said);
        client.waitForEnd();
    });
    ASSERT_NO_FATAL_FAILURE(startTowards(proxy.port()));
    const std::int64_t idle = m_tunnel->operationsInFlight();
    LinuxCommand command(application);
    ASSERT_TRUE(waitUntil([&] { return isRelayed.load(); })) << m_log.lines().join('\n').toStdString();
    const std::int64_t receiving = idle + 2; // on both sides; what was sent may still be completing
    ASSERT_TRUE(waitUntil([&] { return m_tunnel->operationsInFlight() == receiving; }));
    m_tunnel->resetConnections();
    EXPECT_EQ(m_tunnel->operationsInFlight(), receiving);
    SetEvent(goesOn.get());
    const auto ended = command.wait();
    ASSERT_TRUE(ended);
    EXPECT_EQ(ended->output, "you said hello\n");
    m_tunnel->stop();
}

} // namespace
} // namespace ruvo::test
