// The tunnel as clients ask for it: answers, signals, what the log tells.

#include "windows/tun/ruvo_tun_manager_test.h"

#include "common/winsock_headers.h"
#include "support/qt_printers.h"
#include "support/wait_until.h"

#include <gmock/gmock.h>

#include <QJsonArray>

namespace ruvo::test {

QJsonObject RuvoTunManagerTest::started(const QString &name, const QString &address)
{
    return {{"success", true}, {"adapter-name", name}, {"tunnel-ip", address}};
}

QJsonObject RuvoTunManagerTest::failed(const QString &text)
{
    return {{"success", false}, {"error", text}};
}

void RuvoTunManagerTest::SetUpTestSuite()
{
    WSADATA data;
    ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
}

void RuvoTunManagerTest::TearDownTestSuite()
{
    WSACleanup();
}

void RuvoTunManagerTest::SetUp()
{
    NamespaceTest::SetUp();
    m_manager.emplace();
    QObject::connect(&*m_manager, &RuvoTunManager::tunStarted, [this] { m_signals.append("started"); });
    QObject::connect(&*m_manager, &RuvoTunManager::tunStopped, [this] { m_signals.append("stopped"); });
    QObject::connect(&*m_manager, &RuvoTunManager::tunError,
                     [this](const QString &text) { m_signals.append("error " + text); });
}

void RuvoTunManagerTest::TearDown()
{
    m_manager.reset();
    NamespaceTest::TearDown();
}

std::string RuvoTunManagerTest::wayTo(const std::string &address)
{
    return linuxOutput("ip route get " + address + " | grep -o ' dev [^ ]*' | cut -d ' ' -f 3");
}

namespace {

using ::testing::IsEmpty;

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
