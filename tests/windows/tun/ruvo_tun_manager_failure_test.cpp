// A start that fails, a tunnel that dies, a proxy that is dead: what clients are told, and what is left.

#include "windows/tun/ruvo_tun_manager_test.h"

#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/io/winsock_test.h"
#include "windows/support/import_redirection.h"

#include <gmock/gmock.h>

#include <process.h>

#include <QCoreApplication>

#include <atomic>
#include <cerrno>
#include <chrono>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;
using ::testing::IsEmpty;

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

} // namespace
} // namespace ruvo::test
