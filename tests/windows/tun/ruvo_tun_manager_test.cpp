// The tunnel as clients ask for it, on real interfaces and routes.

#include "tun/ruvo_tun_manager.h"

#include "common/winsock_headers.h"
#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/io/winsock_test.h"
#include "windows/netcfg/namespace_test.h"
#include "windows/support/import_redirection.h"

#include <gmock/gmock.h>

#include <process.h>

#include <QCoreApplication>
#include <QJsonArray>
#include <QStringList>

#include <atomic>
#include <cerrno>
#include <optional>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr char defaultLink[] = "ruvo-def-519a5f"; // Linux has no room for the whole name

const QJsonObject success = {{"success", true}};
const QJsonObject notRunning = {{"success", false}, {"error", "TUN not running"}};
const QJsonObject idle = {{"running", false}, {"adapter-name", ""}};

QJsonObject started(const QString &name = "ruvo-default-tun", const QString &address = "10.6.7.1")
{
    return {{"success", true}, {"adapter-name", name}, {"tunnel-ip", address}};
}

QJsonObject failed(const QString &text)
{
    return {{"success", false}, {"error", text}};
}

class RuvoTunManagerTest : public NamespaceTest
{
protected:
    static void SetUpTestSuite()
    {
        WSADATA data;
        ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
    }
    static void TearDownTestSuite() { WSACleanup(); }

    void SetUp() override
    {
        NamespaceTest::SetUp();
        m_manager.emplace();
        QObject::connect(&*m_manager, &RuvoTunManager::tunStarted, [this] { m_signals.append("started"); });
        QObject::connect(&*m_manager, &RuvoTunManager::tunStopped, [this] { m_signals.append("stopped"); });
        QObject::connect(&*m_manager, &RuvoTunManager::tunError,
                         [this](const QString &text) { m_signals.append("error " + text); });
    }
    void TearDown() override
    {
        m_manager.reset();
        NamespaceTest::TearDown();
    }

    static std::string wayTo(const std::string &address)
    {
        return linuxOutput("ip route get " + address + " | grep -o ' dev [^ ]*' | cut -d ' ' -f 3");
    }

    std::optional<RuvoTunManager> m_manager;
    QStringList m_signals;
};

TEST_F(RuvoTunManagerTest, startsTheDefaultTunnelFromAnEmptyObject)
{
    EXPECT_EQ(m_manager->status(), idle);
    EXPECT_EQ(m_manager->start({}), started());
    EXPECT_TRUE(m_manager->isStarted());
    EXPECT_EQ(m_manager->status(), (QJsonObject{{"running", true}, {"adapter-name", "ruvo-default-tun"}}));
    EXPECT_EQ(m_signals, QStringList{"started"});
    EXPECT_EQ(addressesOf(defaultLink), "10.6.7.1/30\n");
    EXPECT_EQ(wayTo("93.184.216.34"), std::string(defaultLink) + '\n');
    EXPECT_TRUE(m_log.contains("DEBUG Proxy: 127.0.0.1:10808"));
    EXPECT_TRUE(m_log.contains("(proxy:10808, direct:20808)"));
    EXPECT_EQ(m_log.lines().constLast(), "DEBUG RuvoTunManager: TUN started with adapter \"ruvo-default-tun\"");
}

TEST_F(RuvoTunManagerTest, stopsWhatItStarted)
{
    ASSERT_EQ(m_manager->start({}), started());
    m_log.clear();
    EXPECT_EQ(m_manager->stop(), success);
    EXPECT_FALSE(m_manager->isStarted());
    EXPECT_EQ(m_manager->status(), idle);
    EXPECT_EQ(m_signals, (QStringList{"started", "stopped"}));
    EXPECT_EQ(m_log.lines().last(2), (QStringList{"DEBUG Tunnel stopped", "DEBUG RuvoTunManager: TUN stopped"}));
    EXPECT_EQ(tunLinks(), "");
    EXPECT_EQ(wayTo("93.184.216.34"), "uplink\n");

    m_log.clear();
    EXPECT_EQ(m_manager->stop(), notRunning);
    EXPECT_EQ(m_signals.size(), 2);
    EXPECT_EQ(m_log.lines(), QStringList());
}

TEST_F(RuvoTunManagerTest, hasNothingToStopBeforeItStarts)
{
    EXPECT_EQ(m_manager->stop(), notRunning);
    EXPECT_EQ(m_signals, QStringList());
}

TEST_F(RuvoTunManagerTest, takesItsRoutesAwayBeforeTheAdapter)
{
    ASSERT_EQ(m_manager->start({}), started());
    clearBenchFolder();
    ASSERT_EQ(m_manager->stop(), success);
    std::vector<std::string> order;
    for (const std::string &line : journal("")) {
        for (const char *call : {"DeleteIpForwardEntry2", "WintunEndSession", "WintunCloseAdapter"}) {
            if (line.contains("\"call\":\"" + std::string(call) + '"'))
                order.emplace_back(call);
        }
    }
    EXPECT_THAT(order,
                ::testing::ElementsAre("DeleteIpForwardEntry2", "DeleteIpForwardEntry2", "DeleteIpForwardEntry2",
                                       "DeleteIpForwardEntry2", "DeleteIpForwardEntry2", "DeleteIpForwardEntry2",
                                       "WintunEndSession", "WintunCloseAdapter"));
}

TEST_F(RuvoTunManagerTest, doesWhatEveryKeySays)
{
    const QJsonObject config = {
        {"proxy-ip", "127.0.0.9"},
        {"proxy-port", 1001},
        {"direct-port", 2002},
        {"tunnel-ip", "10.8.0.1"},
        {"adapter-name", "my tun"},
        {"bypass-ips", QJsonArray{"203.0.113.77", "no address"}},
        {"proxy-processes", QJsonArray{"mail.exe"}},
        {"direct-processes", QJsonArray{"game.exe"}},
    };
    EXPECT_EQ(m_manager->start(config), started("my tun", "10.8.0.1"));
    EXPECT_EQ(m_manager->status()["adapter-name"], "my tun");
    EXPECT_TRUE(m_log.contains("DEBUG Proxy: 127.0.0.9:1001"));
    EXPECT_EQ(wayTo("203.0.113.77"), "uplink\n");
    EXPECT_EQ(
        m_log.linesWith("Bypass IP:"),
        (QStringList{"DEBUG Bypass IP: \"8.8.8.8\"", "DEBUG Bypass IP: \"8.8.4.4\"", "DEBUG Bypass IP: \"1.1.1.1\"",
                     "DEBUG Bypass IP: \"1.0.0.1\"", "DEBUG Bypass IP: \"203.0.113.77\""}));
    EXPECT_EQ(m_log.linesWith(" process:"), (QStringList{"DEBUG Proxy process: \"mail.exe\" (port 1001",
                                                         "DEBUG Direct process: \"game.exe\" (port 2002",
                                                         "DEBUG Direct process: \"xray.exe\" (port 2002",
                                                         "DEBUG Direct process: \"sing-box.exe\" (port 2002",
                                                         "DEBUG Direct process: \"antifilter.exe\" (port 2002"}));
}

TEST_F(RuvoTunManagerTest, sparesThePublicResolversWhateverIsConfigured)
{
    ASSERT_EQ(m_manager->start({}), started());
    for (const char *address : {"8.8.8.8", "8.8.4.4", "1.1.1.1", "1.0.0.1"})
        EXPECT_EQ(wayTo(address), "uplink\n") << address;
    EXPECT_EQ(wayTo("9.9.9.9"), std::string(defaultLink) + '\n');
}

TEST_F(RuvoTunManagerTest, refusesAnAddressThatIsNoneAndCreatesNothing)
{
    for (const QString text : {"10.6.7", "10.6.7.256", "0.0.0.0", ""}) {
        EXPECT_EQ(m_manager->start({{"tunnel-ip", text}}), failed("Invalid tunnel-ip: " + text));
        EXPECT_FALSE(m_manager->isStarted());
    }
    EXPECT_THAT(journal("\"Wintun"), IsEmpty());
    EXPECT_EQ(m_signals, QStringList());
    EXPECT_EQ(m_manager->stop(), notRunning);
}

TEST_F(RuvoTunManagerTest, doesNotStartWhatRuns)
{
    ASSERT_EQ(m_manager->start({}), started());
    // The last call of a start, in the reader's own thread.
    ASSERT_TRUE(waitUntil([] { return !journal("\"WintunGetReadWaitEvent\"").empty(); }));
    clearBenchFolder();
    EXPECT_EQ(m_manager->start({{"adapter-name", "another"}}), failed("TUN already running"));
    EXPECT_EQ(m_manager->start({{"tunnel-ip", "no address"}}), failed("TUN already running"));
    EXPECT_THAT(journal("\"Wintun"), IsEmpty());
    EXPECT_EQ(m_manager->status()["adapter-name"], "ruvo-default-tun");
    EXPECT_EQ(m_signals, QStringList{"started"});
    EXPECT_EQ(wayTo("93.184.216.34"), std::string(defaultLink) + '\n');
}

TEST_F(RuvoTunManagerTest, saysWhatMadeTheStartFailAndCleansUp)
{
    const QString text = "Failed to start Wintun session (driver communication error)";
    fail("WintunStartSession", ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(m_manager->start({}), failed(text));
    failNothing();
    EXPECT_EQ(m_log.lines().constLast(), "CRITICAL \"" + text + '"');
    EXPECT_EQ(m_signals, QStringList{"error " + text});
    EXPECT_FALSE(m_manager->isStarted());
    EXPECT_EQ(m_manager->status(), idle);
    EXPECT_EQ(tunLinks(), "");
    EXPECT_EQ(m_manager->stop(), notRunning);
    EXPECT_EQ(m_manager->start({}), started());
}

TEST_F(RuvoTunManagerTest, refusesAStartThatThereIsNoThreadFor)
{
    // Each of the tunnel's own threads in turn, with all that the others have begun; at last none fails.
    for (int failing = 1;; ++failing) {
        ASSERT_LT(failing, 100);
        std::atomic<int> threads = 0;
        QJsonObject answer;
        {
            const ImportRedirection<IMPORT(_beginthreadex)> noThread([&](auto... arguments) -> uintptr_t {
                if (++threads == failing) {
                    errno = EAGAIN;
                    return 0;
                }
                return noThread.real(arguments...);
            });
            answer = m_manager->start({});
        }
        if (answer["success"].toBool()) {
            EXPECT_GE(failing, 3) << "a worker, flow control, the reader";
            break;
        }
        const QString text = answer["error"].toString();
        EXPECT_TRUE(text.startsWith("Failed to start the tunnel: ")) << qPrintable(text);
        EXPECT_EQ(m_log.lines().constLast(), "CRITICAL \"" + text + '"');
        EXPECT_EQ(m_signals.takeLast(), "error " + text);
        EXPECT_EQ(m_manager->status(), idle);
        EXPECT_EQ(m_manager->stop(), notRunning);
        EXPECT_EQ(tunLinks(), "");
        EXPECT_THAT(routes("0.0.0.0/1"), IsEmpty());
        EXPECT_EQ(journal("FwpmEngineClose0").size(), static_cast<std::size_t>(failing)) << "its filters have gone";
    }
    EXPECT_EQ(m_signals, QStringList{"started"});
}

TEST_F(RuvoTunManagerTest, cleansUpATunnelThatDiedWhenItStartsTheNext)
{
    ASSERT_EQ(m_manager->start({}), started());
    ASSERT_EQ(linuxOutput("ip link delete " + std::string(defaultLink)), "");
    EXPECT_EQ(m_manager->status()["running"], true) << "what was started and not stopped";
    EXPECT_TRUE(waitUntil([this] {
        return m_manager->start({{"tunnel-ip", "10.8.0.1"}}) != failed("TUN already running");
    }));
    EXPECT_EQ(m_signals, (QStringList{"started", "started"}));
    EXPECT_TRUE(m_log.contains("DEBUG Tunnel stopped"));
    EXPECT_EQ(addressesOf(defaultLink), "10.8.0.1/30\n");
    EXPECT_EQ(wayTo("93.184.216.34"), std::string(defaultLink) + '\n');
}

TEST_F(RuvoTunManagerTest, isStoppedThoughItsTunnelDied)
{
    ASSERT_EQ(m_manager->start({}), started());
    ASSERT_EQ(linuxOutput("ip link delete " + std::string(defaultLink)), "");
    EXPECT_EQ(m_manager->stop(), success);
    EXPECT_EQ(m_signals, (QStringList{"started", "stopped"}));
}

TEST_F(RuvoTunManagerTest, forgetsADeadTunnelThoughTheNextOneFails)
{
    ASSERT_EQ(m_manager->start({}), started());
    ASSERT_EQ(linuxOutput("ip link delete " + std::string(defaultLink)), "");
    EXPECT_TRUE(waitUntil([this] {
        return m_manager->start({{"tunnel-ip", "none"}}) == failed("Invalid tunnel-ip: none");
    }));
    EXPECT_EQ(m_manager->status(), idle);
    EXPECT_EQ(m_manager->stop(), notRunning);
}

TEST_F(RuvoTunManagerTest, runsWithoutRoutesIfThereIsNoDefaultRoute)
{
    ASSERT_EQ(linuxOutput("ip route delete default"), "");
    fail("CreateIpForwardEntry2", ERROR_ACCESS_DENIED, "1"); // nor a default route of its own
    EXPECT_EQ(m_manager->start({}), started());
    failNothing();
    EXPECT_EQ(m_log.linesWith("WARNING Failed to"), (QStringList{
                                                        "WARNING Failed to set gateway: 5",
                                                        "WARNING Failed to get original default gateway",
                                                        "WARNING Failed to get original default gateway",
                                                        "WARNING Failed to set up full tunnel routing",
                                                    }));
    EXPECT_TRUE(m_log.contains("DEBUG Original network interface index: 0"));
    EXPECT_THAT(routes("0.0.0.0/1"), IsEmpty());
    EXPECT_EQ(m_manager->stop(), success);
    EXPECT_EQ(linuxOutput("ip route add default via 192.0.2.1 metric 25"), "");
}

TEST_F(RuvoTunManagerTest, remembersTheInterfaceOfTheOriginalDefaultRoute)
{
    ASSERT_EQ(m_manager->start({}), started());
    const QString index = QString::fromStdString(linuxOutput("ip -o link show uplink | cut -d : -f 1")).trimmed();
    EXPECT_TRUE(m_log.contains("DEBUG Original network interface index: " + index));
    EXPECT_TRUE(m_log.contains("DEBUG Original gateway: \"192.0.2.1\" (ifIndex= " + index + " )"));
}

TEST_F(RuvoTunManagerTest, sparesNothingIfItsOwnDefaultRouteComesFirst)
{
    writeBenchFile("netconfig.txt", "default-routes reversed\n");
    ASSERT_EQ(m_manager->start({}), started());
    EXPECT_EQ(m_log.linesWith("skipping bypass routes").size(), 1);
    EXPECT_EQ(wayTo("8.8.8.8"), std::string(defaultLink) + '\n');
    EXPECT_EQ(wayTo("93.184.216.34"), std::string(defaultLink) + '\n');
}

TEST_F(RuvoTunManagerTest, leavesTheRouteOfAProxyElsewhere)
{
    ASSERT_EQ(linuxOutput("sysctl -qw net.ipv4.conf.uplink.tag=2"), "");
    ASSERT_EQ(m_manager->start({{"proxy-ip", "203.0.113.5"}}), started());
    EXPECT_EQ(wayTo("203.0.113.5"), "uplink\n");
    ASSERT_EQ(m_manager->stop(), success);
    EXPECT_THAT(routes("203.0.113.5"), HasSubstr("via 192.0.2.1 dev uplink"));
    EXPECT_EQ(linuxOutput("ip route delete 203.0.113.5; sysctl -qw net.ipv4.conf.uplink.tag=0"), "");
}

TEST_F(RuvoTunManagerTest, givesAProxyThatIsNoAddressNoRoute)
{
    ASSERT_EQ(m_manager->start({{"proxy-ip", "proxy.example"}}), started());
    EXPECT_THAT(journal("\"CreateIpForwardEntry\""), IsEmpty());
    EXPECT_FALSE(m_log.contains("localhost"));
    EXPECT_TRUE(m_log.contains("DEBUG Proxy: proxy.example:10808"));
}

/// With a proxy whose death has been found, and waits to be told of by the event loop.
class RuvoTunManagerDeath : public RuvoTunManagerTest
{
protected:
    void SetUp() override
    {
        RuvoTunManagerTest::SetUp();
        QObject::connect(&*m_manager, &RuvoTunManager::proxyHealthCheckFailed, [this] { m_signals.append("dead"); });
        ASSERT_EQ(m_manager->start({{"proxy-port", closedPort()}}), started());
        ASSERT_EQ(
            linuxOutput(
                "for i in 1 2 3 4 5; do "
                "timeout 10 bash -c 'exec 3<>/dev/tcp/203.0.113.9/80 && read -r -t 5 -u 3' 2>/dev/null || true; "
                "done"),
            "");
        // What is called there is behind the line of the log, on the same thread.
        const auto isFound = [this] { return !m_log.linesWith("does not answer any more on port").isEmpty(); };
        for (const SteadyTime end = steadyNow() + 15s; !isFound() && steadyNow() < end;)
            Sleep(1); // waitUntil would run the event loop
        ASSERT_TRUE(isFound());
    }
    static void runEventLoop() { QCoreApplication::sendPostedEvents(); }
};

TEST_F(RuvoTunManagerDeath, isToldOfByTheEventLoop)
{
    EXPECT_EQ(m_signals, QStringList{"started"});
    EXPECT_TRUE(waitUntil([this] {
        runEventLoop();
        return m_signals.contains("dead");
    }));
    EXPECT_EQ(m_signals, (QStringList{"started", "dead"}));
}

TEST_F(RuvoTunManagerDeath, isNotToldOfOnceTheTunnelHasStopped)
{
    ASSERT_EQ(m_manager->stop(), success); // joins the thread that has found it
    runEventLoop();
    EXPECT_EQ(m_signals, (QStringList{"started", "stopped"}));
}

TEST_F(RuvoTunManagerDeath, isNotTakenForThatOfTheNextTunnelsProxy)
{
    ASSERT_EQ(m_manager->stop(), success);
    ASSERT_EQ(m_manager->start({}), started());
    runEventLoop();
    EXPECT_EQ(m_signals, (QStringList{"started", "stopped", "started"}));
}

TEST_F(RuvoTunManagerTest, stopsItsTunnelWhenItGoes)
{
    ASSERT_EQ(m_manager->start({}), started());
    m_log.clear();
    m_manager.reset();
    EXPECT_EQ(m_signals, (QStringList{"started", "stopped"}));
    EXPECT_EQ(m_log.lines().last(2), (QStringList{"DEBUG Tunnel stopped", "DEBUG RuvoTunManager: TUN stopped"}));
    EXPECT_EQ(tunLinks(), "");
}

TEST_F(RuvoTunManagerTest, goesInSilenceIfNothingRuns)
{
    m_manager.reset();
    EXPECT_EQ(m_signals, QStringList());
    EXPECT_EQ(m_log.lines(), QStringList());
}

TEST_F(RuvoTunManagerTest, flushesTheResolverCacheWhetherATunnelRunsOrNot)
{
    m_manager->flushDnsCache();
    EXPECT_EQ(m_log.lines(),
              (QStringList{"DEBUG \u2713 DNS resolver cache flushed", "DEBUG RuvoTunManager: DNS cache flushed"}));
    ASSERT_EQ(m_manager->start({}), started());
    m_log.clear();
    m_manager->flushDnsCache();
    EXPECT_EQ(m_log.lines().constLast(), "DEBUG RuvoTunManager: DNS cache flushed");
}

TEST_F(RuvoTunManagerTest, resetsConnectionsOnlyOfATunnelThatRuns)
{
    m_manager->resetConnections();
    const QStringList warning{"WARNING RuvoTunManager: Cannot reset connections - TUN not running"};
    EXPECT_EQ(m_log.lines(), warning);

    ASSERT_EQ(m_manager->start({}), started());
    m_log.clear();
    m_manager->resetConnections();
    EXPECT_EQ(m_log.linesWith("Connection reset complete").size(), 1);
    EXPECT_EQ(m_log.linesWith("DEBUG RuvoTunManager: All connections reset").size(), 1);
    EXPECT_EQ(m_log.linesWith("Cannot reset"), QStringList());

    ASSERT_EQ(m_manager->stop(), success);
    m_log.clear();
    m_manager->resetConnections();
    EXPECT_EQ(m_log.lines(), warning);
}

} // namespace
} // namespace ruvo::test
