// What a running tunnel sees to once a second: whatever nothing else would ever end or take up again.

#include "windows/tun/sends_of_this_thread.h"
#include "windows/tun/tunnel_test.h"

#include "packet/packet_builder.h"
#include "packet/packet_headers.h"
#include "support/wait_until.h"
#include "windows/io/winsock_test.h"
#include "windows/socks5/scripted_proxy.h"
#include "windows/support/import_redirection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;

/// The steady clock, which can be put forward. It runs backwards when this goes: not before all that measures time.
class ForwardClock
{
public:
    void advance(std::chrono::seconds time)
    {
        LARGE_INTEGER frequency;
        QueryPerformanceFrequency(&frequency);
        m_ahead += time.count() * frequency.QuadPart;
    }

private:
    std::atomic<LONGLONG> m_ahead = 0;
    const ImportRedirection<IMPORT(QueryPerformanceCounter)> m_counter{[this](LARGE_INTEGER *count) {
        const WINBOOL success = m_counter.real(count);
        count->QuadPart += m_ahead;
        return success;
    }};
};

/// The proxy's part of a handshake that succeeds.
void acceptRequest(ProxyConnection &client)
{
    client.receive(3);
    client.send(QByteArray::fromHex("0500"));
    client.receive(10);
    client.send(QByteArray::fromHex("05000001000000000000"));
}

class TunnelHousekeeping : public TunnelTest
{
protected:
    ForwardClock m_clock;
};

TEST_F(TunnelHousekeeping, acceptsThoughItCouldNotAtFirst)
{
    const ScriptedProxy proxy([](ProxyConnection &client) {
        acceptRequest(client);
        client.send("you said " + client.receive(6));
        client.waitForEnd();
    });
    std::atomic<int> streams = 0;
    {
        const ImportRedirection<IMPORT(WSASocketW)> noSecond([&](int family, int type, auto... rest) -> SOCKET {
            if (type == SOCK_STREAM && ++streams == 2) { // the first one listens, this would be the first client's
                WSASetLastError(WSAENOBUFS);
                return INVALID_SOCKET;
            }
            return noSecond.real(family, type, rest...);
        });
        m_tunnel = std::make_unique<Tunnel>(TunnelSettings{.proxyPort = proxy.port()});
        ASSERT_EQ(startError(), "");
        EXPECT_TRUE(m_log.contains("CRITICAL [TCP-NAT] Failed to create accept socket: 10055"));
    }
    ASSERT_EQ(linuxOutput("ip route add 203.0.113.0/24 dev test"), "");
    EXPECT_EQ(linuxOutput(application), "you said hello\n");
}

TEST_F(TunnelHousekeeping, forgetsConnectionsThatNobodyAccepted)
{
    const SendsOfThisThread sends;
    ASSERT_EQ(startError(), "");
    const auto dispatch = [this](std::uint8_t flags) {
        const PacketBytes packet = buildTcpPacket(tunnelIp, 40000, 0xCB007109, 80, 1, 1, flags, nullptr, 0);
        m_tunnel->dispatchPacket(packet.data(), packet.size());
    };
    dispatch(tcpSyn);
    dispatch(tcpAck);
    ASSERT_EQ(sends.count(), 2) << "as long as the connection is known";
    m_clock.advance(61s);
    EXPECT_TRUE(waitUntil([&] {
        const int before = sends.count();
        dispatch(tcpAck);
        return sends.count() == before;
    }));
}

TEST_F(TunnelHousekeeping, endsARelayThatOnlyOneSideHasLeft)
{
    const ScriptedProxy proxy([](ProxyConnection &client) {
        acceptRequest(client);
        client.receive(6); // and hangs up
    });
    ASSERT_NO_FATAL_FAILURE(startTowards(proxy.port()));
    const std::int64_t idle = m_tunnel->operationsInFlight();
    LinuxCommand deaf("timeout 60 bash -c 'exec 3<>/dev/tcp/203.0.113.9/80 && echo hello >&3 && "
                      "while ip link show test >/dev/null 2>&1; do sleep 0.2; done'");
    EXPECT_TRUE(waitUntil([] { return linuxOutput("ss -Htn state close-wait dst 203.0.113.9") != ""; }));
    EXPECT_GT(m_tunnel->operationsInFlight(), idle) << "it is still listened to";
    m_clock.advance(31s);
    EXPECT_TRUE(waitUntil([&] { return m_tunnel->operationsInFlight() == idle; }));
    m_tunnel->stop();
    EXPECT_TRUE(deaf.wait());
}

TEST_F(TunnelHousekeeping, forgetsNamesThatAreOutOfDate)
{
    ASSERT_EQ(startError(), "");
    m_tunnel->learnedNames().learn(0xCB007109, "www.example.org", 60);
    m_tunnel->learnedNames().learn(0xCB007108, "www.example.net", 600);
    ASSERT_EQ(m_tunnel->learnedNames().size(), 2u);
    m_clock.advance(61s);
    EXPECT_TRUE(waitUntil([this] { return m_tunnel->learnedNames().size() == 1; }));
    EXPECT_EQ(m_tunnel->learnedNames().nameOf(0xCB007108), "www.example.net");
}

} // namespace
} // namespace ruvo::test
