#pragma once

#include "windows/nat/nat_test.h"

#include "nat/udp_nat_relay.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace ruvo::test {

/// A proxy for UDP associations: takes any number of them, and the test reads and answers their datagrams.
class AssociationProxy
{
public:
    /// What a control connection gets to hear. The default is a proxy that does as it is asked.
    struct Answers
    {
        QByteArray method = QByteArray::fromHex("0500");
        /// None: success, with the address where datagrams are taken.
        std::optional<QByteArray> reply;
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

    AssociationProxy() : AssociationProxy(Answers()) {}
    explicit AssociationProxy(Answers answers);

    std::uint16_t port() const { return m_tcp->port(); }
    int connections() const { return m_tcp->connections(); }
    /// The next datagram, waited for; empty if there is none.
    Datagram receive() const;
    void answer(const Datagram &to, const QByteArray &bytes) const;
    /// Says nothing until open.
    void closeGate() { ResetEvent(m_gate.get()); }
    void openGate() { SetEvent(m_gate.get()); }
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

/// A relay between the test, which sends as the tunnel's dispatcher, and two proxies: the main inbound and the direct
/// one. Its time passes when the test says so.
class UdpNatRelayTest : public NatTest
{
protected:
    static constexpr std::uint32_t client = 0x0A060701;
    static constexpr std::uint32_t server = 0x5DB8D822; // 93.184.216.34
    /// The header of a datagram to the server's port 443.
    inline static const QByteArray header = QByteArray::fromHex("000000015db8d82201bb");

    struct Packet
    {
        std::uint32_t srcIp = 0;
        std::uint16_t srcPort = 0;
        std::uint32_t dstIp = 0;
        std::uint16_t dstPort = 0;
        QByteArray payload;
    };
    struct Refused
    {
        FlowKey flow;
        QByteArray payload;
    };

    void SetUp() override;
    void TearDown() override;
    void makeRelay(std::size_t sessionLimit);
    void startRelay(const std::string &host = "127.0.0.1");
    /// Another kind of main inbound, before startRelay.
    void useProxy(AssociationProxy::Answers answers);

    /// A datagram to the server's port 443.
    bool forward(std::uint16_t clientPort, const QByteArray &payload) { return forwardTo(443, clientPort, payload); }
    bool forwardTo(std::uint16_t port, std::uint16_t clientPort, const QByteArray &payload);
    /// As forward, and waits until its association is open and the proxy has it.
    AssociationProxy::Datagram establish(std::uint16_t clientPort, const QByteArray &payload = "first");

    std::size_t packetCount();
    std::optional<Packet> takePacket();
    std::vector<Refused> refused();
    void expectLine(const QString &line);
    void pass(int seconds) { m_now = m_now.load() + std::chrono::seconds(seconds); }

    const KernelHandle m_stopEvent{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    std::atomic<SteadyTime> m_now = SteadyTime(std::chrono::seconds(1000));
    std::unique_ptr<AssociationProxy> m_proxy = std::make_unique<AssociationProxy>();
    std::unique_ptr<AssociationProxy> m_direct = std::make_unique<AssociationProxy>();
    std::unique_ptr<UdpNatRelay> m_relay;

private:
    std::mutex m_mutex;
    std::vector<Packet> m_packets;
    std::vector<Refused> m_refused;
};

} // namespace ruvo::test
