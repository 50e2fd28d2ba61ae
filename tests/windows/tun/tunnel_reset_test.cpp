// The connection reset step by step: its order, what it says, and the gate that it shuts.

#include "windows/tun/sends_of_this_thread.h"
#include "windows/tun/tunnel_test.h"

#include "packet/packet_builder.h"
#include "packet/packet_headers.h"
#include "packet/packet_parser.h"
#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/io/winsock_test.h"
#include "windows/support/import_redirection.h"

#include <gmock/gmock.h>

#include <fwpmu.h>
#include <process.h>

#include <atomic>
#include <chrono>
#include <optional>
#include <string>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr std::uint32_t target = 0xCB007109; // 203.0.113.9
constexpr std::uint32_t opening = 7000;      // the number of a SYN

const QString waiting = "DEBUG [RESET] Waiting 1000ms for xray to initialize...";
const QString ready = "DEBUG [RESET] Proxy marked ready after 1000ms initialization delay";
const QString checking = "CRITICAL [RESET] \U0001F50D Checking if WFP filters survived connection reset...";
const QString resetDone = "DEBUG Connection reset complete - starting proxy health check";

class TunnelReset : public TunnelTest
{
protected:
    void dispatch(const PacketBytes &packet) { m_tunnel->dispatchPacket(packet.data(), packet.size()); }
    /// A connection of this host begins: from a port of its own each time.
    void dispatchOpening()
    {
        dispatch(buildTcpPacket(tunnelIp, ++m_port, target, 80, opening, 0, tcpSyn, nullptr, 0));
    }
    /// What becomes of one now: it is refused, or it goes to the listener.
    bool isRefused()
    {
        const int before = m_sends.count();
        dispatchOpening();
        EXPECT_EQ(m_sends.count(), before + 1);
        const ParsedPacket answer = parsePacket(m_sends.last().data(), m_sends.last().size());
        EXPECT_TRUE(answer.tcpFlags == (tcpRst | tcpAck) || answer.tcpFlags == tcpSyn) << int(answer.tcpFlags);
        return answer.tcpFlags != tcpSyn;
    }
    /// How long after `begin` connections are refused no more.
    Clock::duration refusedSince(Clock::time_point begin)
    {
        EXPECT_TRUE(waitUntil([this] { return !isRefused(); }));
        return Clock::now() - begin;
    }
    qsizetype count(const QString &line) const { return m_log.lines().count(line); }

    /// Before the library is loaded.
    const SendsOfThisThread m_sends;
    std::uint16_t m_port = 20000;
};

TEST_F(TunnelReset, ofAStoppedTunnelDoesNothingAndSaysNothing)
{
    m_tunnel->resetConnections();
    EXPECT_EQ(m_log.lines(), QStringList());
    ASSERT_EQ(startError(), "");
    m_tunnel->stop();
    clearBenchFolder();
    m_log.clear();
    const auto begin = Clock::now();
    m_tunnel->resetConnections();
    EXPECT_LT(Clock::now() - begin, 100ms);
    EXPECT_EQ(m_log.lines(), QStringList());
    EXPECT_EQ(journal("\"call\""), std::vector<std::string>());
    ASSERT_EQ(startError(), "");
    EXPECT_FALSE(isRefused());
}

TEST_F(TunnelReset, ofNoConnectionsGoesThroughAllItsSteps)
{
    ASSERT_EQ(startError(), "");
    const QString filters = QString::number(journal("\"FwpmFilterAdd0\"").size());
    m_log.clear();
    const auto begin = Clock::now();
    m_tunnel->resetConnections();
    const auto held = Clock::now() - begin;
    EXPECT_GE(held, 100ms);
    EXPECT_LT(held, 1s) << "the thread is not held for the proxy";
    EXPECT_TRUE(waitUntil([this] { return count(ready) == 1; }));
    EXPECT_GE(Clock::now() - begin, 1100ms);
    EXPECT_EQ(m_log.lines(),
              (QStringList{
                  "DEBUG \u2713 DNS resolver cache flushed",
                  "WARNING [RESET] Interface metric: 0 AutoMetric: false Forwarding: true",
                  resetDone,
                  checking,
                  "CRITICAL [FILTER-CHECK] \U0001F50D Verifying " + filters + " filters still exist...",
                  "CRITICAL [FILTER-CHECK] " + filters + " filters exist, 0 are MISSING",
                  "CRITICAL [FILTER-CHECK] \u2705 All filters verified - DNS protection active",
                  waiting,
                  ready,
              }));
    printf("a reset of no connections holds its thread for %lld ms\n",
           static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(held).count()));
}

TEST_F(TunnelReset, goesOnWithoutTheInterfacesEntry)
{
    ASSERT_EQ(startError(), "");
    m_log.clear();
    fail("GetIpInterfaceEntry", ERROR_NOT_FOUND);
    m_tunnel->resetConnections();
    failNothing();
    EXPECT_EQ(m_log.linesWith("WARNING"), QStringList{"WARNING [RESET] Failed to get interface entry"});
    EXPECT_EQ(count(resetDone), 1);
    EXPECT_TRUE(waitUntil([this] { return !isRefused(); }));
}

TEST_F(TunnelReset, goesOnThoughTheResolverCacheIsNotFlushed)
{
    ASSERT_EQ(startError(), "");
    m_log.clear();
    {
        const ImportRedirection<IMPORT(LoadLibraryW)> noLibrary([](LPCWSTR) -> HMODULE { return nullptr; });
        m_tunnel->resetConnections();
    }
    EXPECT_EQ(m_log.lines().constFirst(), "WARNING Failed to flush DNS resolver cache");
    EXPECT_EQ(count(resetDone), 1);
    EXPECT_TRUE(waitUntil([this] { return !isRefused(); }));
}

TEST_F(TunnelReset, namesAFilterThatHasGone)
{
    ASSERT_EQ(startError(), "");
    m_log.clear();
    UINT64 gone = 0;
    {
        const ImportRedirection<IMPORT(FwpmFilterGetById0)> lost([&](HANDLE engine, UINT64 id, auto filter) -> DWORD {
            gone = gone == 0 ? id : gone;
            return id == gone ? static_cast<DWORD>(FWP_E_FILTER_NOT_FOUND) : lost.real(engine, id, filter);
        });
        m_tunnel->resetConnections();
    }
    EXPECT_EQ(count(checking), 1);
    EXPECT_EQ(m_log.linesWith("CRITICAL [FILTER-CHECK] \u274C Filter ID " + QString::number(gone)).size(), 1);
    EXPECT_TRUE(waitUntil([this] { return !isRefused(); }));
}

TEST_F(TunnelReset, saysThatThereAreNoFilters)
{
    fail("FwpmEngineOpen0", RPC_S_UNKNOWN_IF);
    ASSERT_EQ(startError(), "");
    failNothing();
    m_log.clear();
    m_tunnel->resetConnections();
    EXPECT_EQ(m_log.linesWith("CRITICAL").size(), 1);
    EXPECT_EQ(m_log.linesWith("CRITICAL [RESET] \u274C m_firewall is NULL! This must never occur").size(), 1);
    EXPECT_EQ(count(checking), 0);
    EXPECT_TRUE(waitUntil([this] { return !isRefused(); }));
}

TEST_F(TunnelReset, refusesConnectionsForASecondAndDropsAllElse)
{
    const Socket proxy = listeningSocket();
    m_tunnel = std::make_unique<Tunnel>(TunnelSettings{.proxyPort = portOf(proxy.get())});
    ASSERT_EQ(startError(), "");
    EXPECT_FALSE(isRefused());
    const std::int64_t idle = m_tunnel->operationsInFlight();
    const auto begin = Clock::now();
    m_tunnel->resetConnections();
    int sent = m_sends.count();
    const auto fromTheNetwork = [this](std::uint8_t flags) {
        dispatch(buildTcpPacket(0xC0000209, 30000, target, 443, opening, 0, flags, nullptr, 0));
    };
    fromTheNetwork(tcpSyn);
    EXPECT_EQ(m_sends.count(), ++sent);
    EXPECT_EQ(m_sends.last().size(), 40u);
    const ParsedPacket answer = parsePacket(m_sends.last().data(), m_sends.last().size());
    EXPECT_EQ(answer.srcIp, target);
    EXPECT_EQ(answer.srcPort, 443);
    EXPECT_EQ(answer.dstIp, 0xC0000209);
    EXPECT_EQ(answer.dstPort, 30000);
    EXPECT_EQ(answer.seq, 0u);
    EXPECT_EQ(answer.ack, opening + 1);
    EXPECT_EQ(answer.tcpFlags, tcpRst | tcpAck);

    fromTheNetwork(tcpAck);
    fromTheNetwork(tcpSyn | tcpAck);
    fromTheNetwork(tcpFin | tcpAck);
    dispatch(buildUdpPacket(tunnelIp, 5000, target, 443, nullptr, 0));
    EXPECT_EQ(m_sends.count(), sent);
    EXPECT_EQ(m_tunnel->operationsInFlight(), idle) << "the engine has nothing of it";

    const auto refused = refusedSince(begin);
    EXPECT_GE(refused, 1100ms);
    EXPECT_LT(refused, 3s);
    fromTheNetwork(tcpSyn);
    EXPECT_GT(m_tunnel->operationsInFlight(), idle) << "the engine connects";
}

TEST_F(TunnelReset, twiceInQuickSuccessionRefusesUntilASecondAfterTheSecond)
{
    ASSERT_EQ(startError(), "");
    m_tunnel->resetConnections();
    std::this_thread::sleep_for(500ms); // the first one's second ends before the second one's
    EXPECT_TRUE(isRefused());
    const auto second = Clock::now();
    m_tunnel->resetConnections();
    EXPECT_GE(refusedSince(second), 1100ms);
    EXPECT_TRUE(waitUntil([this] { return count(ready) > 0; }));
    EXPECT_EQ(count(ready), 1);
    EXPECT_EQ(count(waiting), 2);
}

TEST_F(TunnelReset, isRepeatedAtOnce)
{
    ASSERT_EQ(startError(), "");
    auto last = Clock::now();
    for (int i = 0; i < 5; ++i) {
        last = Clock::now();
        m_tunnel->resetConnections();
    }
    EXPECT_GE(refusedSince(last), 1100ms);
    EXPECT_TRUE(waitUntil([this] { return count(ready) > 0; }));
    EXPECT_EQ(count(ready), 1);
    EXPECT_EQ(count(resetDone), 5);
}

TEST_F(TunnelReset, doesNotHoldTheStopUp)
{
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(startError(), "");
        EXPECT_FALSE(isRefused()) << "the next life begins with an open gate";
        m_tunnel->resetConnections();
        EXPECT_TRUE(isRefused());
        const auto begin = Clock::now();
        m_tunnel->stop();
        EXPECT_LT(Clock::now() - begin, 5s);
        EXPECT_EQ(m_tunnel->operationsInFlight(), 0);
        EXPECT_EQ(m_log.lines().constLast(), "DEBUG Tunnel stopped");
    }
    EXPECT_EQ(count(ready), 0);
    ASSERT_EQ(startError(), "");
    m_tunnel->resetConnections();
    EXPECT_TRUE(waitUntil([this] { return !isRefused(); }));
}

TEST_F(TunnelReset, opensTheGateWithoutAThreadForIt)
{
    ASSERT_EQ(startError(), "");
    m_log.clear();
    const auto begin = Clock::now();
    {
        const ImportRedirection<IMPORT(_beginthreadex)> noThread([](auto...) -> uintptr_t {
            errno = EAGAIN;
            return 0;
        });
        m_tunnel->resetConnections();
    }
    EXPECT_EQ(m_log.linesWith("WARNING [RESET] No thread to wait for the proxy:").size(), 1);
    EXPECT_EQ(count(waiting), 0);
    EXPECT_TRUE(isRefused());
    const auto refused = refusedSince(begin);
    EXPECT_GE(refused, 1100ms);
    EXPECT_LT(refused, 2600ms);
    EXPECT_TRUE(waitUntil([this] { return count(ready) == 1; }));

    // The next one has a thread again, and one that replaces a planned opening does not come too early either.
    {
        const ImportRedirection<IMPORT(_beginthreadex)> noThread([](auto...) -> uintptr_t {
            errno = EAGAIN;
            return 0;
        });
        m_tunnel->resetConnections();
    }
    std::this_thread::sleep_for(500ms);
    const auto second = Clock::now();
    m_tunnel->resetConnections();
    EXPECT_GE(refusedSince(second), 1100ms);
    EXPECT_TRUE(waitUntil([this] { return count(ready) == 2; }));
    EXPECT_EQ(count(waiting), 1);
}

TEST_F(TunnelReset, isDoneToATunnelWhoseAdapterHasDied)
{
    ASSERT_EQ(startError(), "");
    ASSERT_EQ(linuxOutput("ip link delete test"), "");
    ASSERT_TRUE(waitUntil([this] { return !m_tunnel->isRunning(); }));
    m_log.clear();
    m_tunnel->resetConnections();
    EXPECT_TRUE(m_log.contains("WARNING [RESET] Failed to get interface entry"));
    EXPECT_EQ(count(resetDone), 1);
    m_tunnel->stop();
    EXPECT_EQ(m_log.lines().constLast(), "DEBUG Tunnel stopped");
}

} // namespace
} // namespace ruvo::test
