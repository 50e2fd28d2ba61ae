#pragma once

#include "windows/nat/nat_test.h"

#include "engine/udp_flows.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace ruvo::test {

/// A proxy that grants UDP associations, or does not; the test reads and answers their datagrams.
class AssociationServer
{
public:
    /// What a control connection gets to hear. The default is a proxy that does as it is asked.
    struct Answers
    {
        QByteArray method = QByteArray::fromHex("0500");
        /// None: success, with the address where datagrams are taken. Less than 10 bytes: an end behind them.
        std::optional<QByteArray> reply = {};
        /// It reads, and never says a word.
        bool isMute = false;
        /// It names no address: datagrams go to the proxy's own.
        bool hidesAddress = false;
    };
    struct Datagram
    {
        QByteArray bytes;
        sockaddr_in from{};
    };

    AssociationServer() : AssociationServer(Answers()) {}
    explicit AssociationServer(Answers answers);

    std::uint16_t port() const { return m_tcp->port(); }
    int connections() const { return m_tcp->connections(); }
    /// Says nothing until open.
    void closeGate() { ResetEvent(m_gate.get()); }
    void openGate() { SetEvent(m_gate.get()); }
    /// The next datagram, waited for; empty if there is none.
    Datagram receive() const;
    void answer(const Datagram &to, const QByteArray &bytes) const;
    /// Says something on every control connection, where nothing is to be said.
    void babble();
    /// Ends the control connections that there are.
    void endAssociations();
    /// How the client ends the control connection that was asked for first.
    Ending endOfFirst();

private:
    void serve(ProxyConnection &client);
    void waitForAll();

    const Answers m_answers;
    const KernelHandle m_gate{CreateEventW(nullptr, TRUE, TRUE, nullptr)};
    Socket m_udp;
    std::mutex m_mutex;
    std::vector<ProxyConnection> m_kept;
    std::unique_ptr<ParallelProxy> m_tcp;
};

/// Flows between the test, which sends as the tunnel's dispatcher, and two proxies: the main inbound, and the one
/// that takes DNS. Time passes when the test says so.
class UdpFlowsTest : public NatTest
{
protected:
    static constexpr std::uint32_t tunnel = 0x0A060701; // 10.6.7.1
    static constexpr std::uint32_t server = 0x5DB8D822; // 93.184.216.34
    /// The header of a datagram to the server's port 443.
    inline static const QByteArray header = QByteArray::fromHex("000000015db8d82201bb");
    inline static const QByteArray resolverHeader = QByteArray::fromHex("00000001080808080035");

    struct Packet
    {
        Endpoint from;
        Endpoint to;
        QByteArray payload;
    };

    void SetUp() override;
    void TearDown() override;
    /// Another kind of main inbound.
    void useProxy(AssociationServer::Answers answers);
    void makeFlows(std::size_t limit = UdpFlows::maxFlows);
    /// Every flow from now on goes to this port of the proxy host.
    void goTo(std::uint16_t port);

    /// A datagram from the application's `clientPort` to the server's port 443, or to elsewhere.
    void send(std::uint16_t clientPort, const QByteArray &payload, Endpoint to = {server, 443});
    /// From [fd00::1] to [2001:db8::2].
    void sendIpv6(std::uint16_t clientPort, const QByteArray &payload, std::uint16_t toPort = 443);
    /// As send, and waits until its association stands and the proxy has it.
    AssociationServer::Datagram establish(std::uint16_t clientPort, const QByteArray &payload = "first");

    std::size_t packetCount();
    std::optional<Packet> takePacket();
    std::vector<DnsAnswer> learnt();
    UdpFlowPtr onlyFlow();
    /// No flow is left, and nothing of one is in flight.
    void expectGone();
    void expectLine(const QString &line);
    /// With "%" for the values of sockets and of the port, which differ from run to run.
    static QStringList withoutNumbers(QStringList lines);
    void pass(std::chrono::seconds time);

    std::unique_ptr<AssociationServer> m_proxy = std::make_unique<AssociationServer>();
    std::unique_ptr<AssociationServer> m_dns = std::make_unique<AssociationServer>();
    EngineServices m_services;
    std::unique_ptr<UdpFlows> m_flows;

private:
    std::atomic<std::int64_t> m_now = 1'000'000'000'000; // ns
    std::mutex m_mutex;
    std::vector<Packet> m_packets;
    std::vector<DnsAnswer> m_learnt;
};

} // namespace ruvo::test
