#include "process/tun_companion.h"

#include "common/quit.h"
#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/process/fake_adapters.h"
#include "windows/support/child_process.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QTimer>

namespace ruvo {
namespace {

const test::FakeAdapter upAdapter{L"ruvo-tun", "{01234567-89AB-CDEF-0123-456789ABCDEF}", true};
const test::FakeAdapter downAdapter{L"ruvo-tun", "{01234567-89AB-CDEF-0123-456789ABCDEF}", false};

class TunCompanionWait : public ::testing::Test
{
protected:
    /// The lines without the milliseconds that passed.
    QStringList lines() const
    {
        return log.lines().replaceInStrings(QRegularExpression("after \\d+ ms"), "after N ms");
    }

    test::FakeAdapters adapters;
    test::LogCapture log;
    TunCompanion companion;
    QElapsedTimer timer = [] {
        QElapsedTimer started;
        started.start();
        return started;
    }();
};

const QString waiting = R"(INFO [ProcessManager] Waiting for interface "ruvo-tun" to be UP (max 1000 ms))";
const QString up = R"(INFO [ProcessManager] Interface "ruvo-tun" is UP after N ms)";
const QString notUp = R"(WARNING [ProcessManager] Interface "ruvo-tun" not UP after N ms (timeout: 1000 ms))";

TEST_F(TunCompanionWait, findsAnAdapterThatIsUpAtOnce)
{
    adapters.adapters = {{L"Ethernet", "{1}", true}, upAdapter};
    EXPECT_TRUE(companion.waitForInterfaceUp("ruvo-tun", 1000));
    EXPECT_EQ(adapters.queries, 1);
    EXPECT_EQ(lines(), QStringList({waiting, up}));
}

TEST_F(TunCompanionWait, findsAnAdapterThatAppearsLate)
{
    adapters.onQuery = [this](int number) {
        if (number == 3)
            adapters.adapters = {upAdapter};
    };
    EXPECT_TRUE(companion.waitForInterfaceUp("ruvo-tun", 5000));
    EXPECT_EQ(adapters.queries, 3);
    EXPECT_GE(timer.elapsed(), 390); // 200 ms after each look
}

TEST_F(TunCompanionWait, findsAnAdapterThatComesUpLate)
{
    adapters.adapters = {downAdapter};
    adapters.onQuery = [this](int number) { adapters.adapters.front().up = number >= 3; };
    EXPECT_TRUE(companion.waitForInterfaceUp("ruvo-tun", 5000));
    EXPECT_EQ(adapters.queries, 3);
}

TEST_F(TunCompanionWait, givesUpAnAdapterThatStaysDown)
{
    adapters.adapters = {downAdapter};
    EXPECT_FALSE(companion.waitForInterfaceUp("ruvo-tun", 1000));
    EXPECT_GE(timer.elapsed(), 1000);
    EXPECT_LT(timer.elapsed(), 5000);
    EXPECT_GE(adapters.queries, 4);
    EXPECT_EQ(lines(), QStringList({waiting, notUp}));
}

TEST_F(TunCompanionWait, takesNamesCaseSensitivelyAndWhole)
{
    adapters.adapters = {{L"Ruvo-Tun", "{1}", true}, {L"ruvo-tun 2", "{2}", true}, {L"ruvo", "{3}", true}};
    EXPECT_FALSE(companion.waitForInterfaceUp("ruvo-tun", 300));
}

TEST_F(TunCompanionWait, doesNotLookWithoutTime)
{
    adapters.adapters = {upAdapter};
    EXPECT_FALSE(companion.waitForInterfaceUp("ruvo-tun", 0));
    EXPECT_EQ(adapters.queries, 0);
}

TEST_F(TunCompanionWait, goesOnAfterQueriesThatFail)
{
    adapters.adapters = {upAdapter};
    adapters.onQuery = [this](int number) {
        adapters.sizeResult = number == 1 ? ULONG{ERROR_NO_DATA} : ULONG{ERROR_BUFFER_OVERFLOW};
        adapters.listResult = number == 2 ? ULONG{ERROR_BUFFER_OVERFLOW} : ULONG{NO_ERROR};
    };
    EXPECT_TRUE(companion.waitForInterfaceUp("ruvo-tun", 5000));
    EXPECT_EQ(adapters.queries, 3);
    EXPECT_GE(timer.elapsed(), 390);
    EXPECT_EQ(log.linesWith("GetAdaptersAddresses"), QStringList());
}

TEST_F(TunCompanionWait, runsTheEventLoopMeanwhile)
{
    int ticks = 0;
    QTimer tick;
    QObject::connect(&tick, &QTimer::timeout, [&] { ++ticks; });
    tick.start(10);
    EXPECT_FALSE(companion.waitForInterfaceUp("ruvo-tun", 1000));
    EXPECT_GE(ticks, 3);
}

TEST_F(TunCompanionWait, runsTheEventLoopWhileQueriesFailToo)
{
    adapters.sizeResult = ERROR_NO_DATA;
    int ticks = 0;
    QTimer tick;
    QObject::connect(&tick, &QTimer::timeout, [&] { ++ticks; });
    tick.start(10);
    EXPECT_FALSE(companion.waitForInterfaceUp("ruvo-tun", 1000));
    EXPECT_GE(ticks, 3);
}

TEST_F(TunCompanionWait, comesOneAfterTheOtherForOverridesThatArriveMeanwhile)
{
    // The second and the third arrive while the first waits.
    QTimer::singleShot(0, [this] { companion.configureInterfaceDns("2.2.2.2", "second"); });
    QTimer::singleShot(0, [this] { companion.configureInterfaceDns("3.3.3.3", "third"); });
    adapters.onQuery = [this](int number) {
        if (number == 3)
            adapters.adapters = {{L"first", "{1}", true}, {L"second", "{2}", true}, {L"third", "{3}", true}};
    };
    companion.configureInterfaceDns("1.1.1.1", "first");
    EXPECT_EQ(log.lines()
                  .filter(QRegularExpression("Configuring DNS|is UP|registry"))
                  .replaceInStrings(QRegularExpression("after \\d+ ms"), "after N ms"),
              QStringList({
                  R"(INFO [ProcessManager] Configuring DNS for interface "first" to "1.1.1.1")",
                  R"(INFO [ProcessManager] Interface "first" is UP after N ms)",
                  "WARNING [ProcessManager] Failed to open registry key: 2",
                  R"(INFO [ProcessManager] Configuring DNS for interface "second" to "2.2.2.2")",
                  R"(INFO [ProcessManager] Interface "second" is UP after N ms)",
                  "WARNING [ProcessManager] Failed to open registry key: 2",
                  R"(INFO [ProcessManager] Configuring DNS for interface "third" to "3.3.3.3")",
                  R"(INFO [ProcessManager] Interface "third" is UP after N ms)",
                  "WARNING [ProcessManager] Failed to open registry key: 2",
              }));
}

TEST_F(TunCompanionWait, keepsTheNewestOfThoseThatQueueForAnInterface)
{
    QTimer::singleShot(0, [this] { companion.configureInterfaceDns("2.2.2.2", "second"); });
    QTimer::singleShot(0, [this] { companion.configureInterfaceDns("3.3.3.3", "third"); });
    QTimer::singleShot(0, [this] { companion.configureInterfaceDns("4.4.4.4", "second"); });
    adapters.onQuery = [this](int number) {
        if (number == 3)
            adapters.adapters = {{L"first", "{1}", true}, {L"second", "{2}", true}, {L"third", "{3}", true}};
    };
    companion.configureInterfaceDns("1.1.1.1", "first");
    EXPECT_EQ(log.linesWith("Configuring DNS"),
              QStringList({
                  R"(INFO [ProcessManager] Configuring DNS for interface "first" to "1.1.1.1")",
                  R"(INFO [ProcessManager] Configuring DNS for interface "third" to "3.3.3.3")",
                  R"(INFO [ProcessManager] Configuring DNS for interface "second" to "4.4.4.4")",
              }));
}

TEST_F(TunCompanionWait, isGivenUpForANewerOneOfItsInterface)
{
    QTimer::singleShot(0, [this] { companion.configureInterfaceDns("2.2.2.2", "ruvo-tun"); });
    adapters.onQuery = [this](int number) {
        if (number == 4)
            adapters.adapters = {upAdapter};
    };
    companion.configureInterfaceDns("1.1.1.1", "ruvo-tun");
    EXPECT_LT(timer.elapsed(), 8000);
    // Nothing is said of the older one, and its address is written nowhere.
    EXPECT_EQ(lines().replaceInStrings(QRegularExpression("max \\d+ ms"), "max N ms"),
              QStringList({
                  R"(INFO [ProcessManager] Configuring DNS for interface "ruvo-tun" to "1.1.1.1")",
                  R"(INFO [ProcessManager] Waiting for interface "ruvo-tun" to be UP (max N ms))",
                  R"(INFO [ProcessManager] Configuring DNS for interface "ruvo-tun" to "2.2.2.2")",
                  R"(INFO [ProcessManager] Waiting for interface "ruvo-tun" to be UP (max N ms))",
                  up,
                  R"(DEBUG [ProcessManager] Found interface GUID: "01234567-89AB-CDEF-0123-456789ABCDEF")",
                  "WARNING [ProcessManager] Failed to open registry key: 2",
              }));
}

TEST_F(TunCompanionWait, countsItsTimeFromItsArrival)
{
    TunCompanion hasty(nullptr, 2000);
    // The second has its turn when a part of its time has passed, the third when all of it has.
    QTimer::singleShot(0, [&] { hasty.configureInterfaceDns("2.2.2.2", "second"); });
    QTimer::singleShot(0, [&] { hasty.configureInterfaceDns("3.3.3.3", "third"); });
    adapters.adapters = {{L"other", "{4}", true}};
    adapters.onQuery = [this](int) {
        if (log.contains(R"(Interface "second" not UP)"))
            adapters.adapters = {{L"third", "{3}", true}};
        else if (timer.elapsed() >= 700 && !log.contains("Interface \"first\" is UP"))
            adapters.adapters = {{L"first", "{1}", true}};
    };
    hasty.configureInterfaceDns("1.1.1.1", "first");
    const QRegularExpression given("max (\\d+) ms");
    const QStringList waits = log.linesWith("Waiting for interface");
    ASSERT_EQ(waits.size(), 3);
    EXPECT_EQ(given.match(waits[0]).captured(1), "2000");
    const int left = given.match(waits[1]).captured(1).toInt();
    EXPECT_GT(left, 0);
    EXPECT_LT(left, 1400);
    // However late it is, it is looked for once.
    EXPECT_EQ(given.match(waits[2]).captured(1), "1");
    EXPECT_TRUE(log.contains(R"(Interface "third" is UP)"));
    EXPECT_GE(timer.elapsed(), 1990);
}

TEST_F(TunCompanionWait, isGivenUpOnceItIsNotWanted)
{
    bool wanted = true;
    int afterwards = 0;
    adapters.onQuery = [&](int number) {
        if (number == 3)
            wanted = false;
        else if (!wanted)
            ++afterwards;
    };
    QTimer::singleShot(0,
                       [&] { companion.configureInterfaceDns("2.2.2.2", "second", [&wanted] { return wanted; }); });
    companion.configureInterfaceDns("1.1.1.1", "first", [&wanted] { return wanted; });
    EXPECT_EQ(adapters.queries, 3);
    EXPECT_EQ(afterwards, 0);
    EXPECT_EQ(log.lines(), QStringList({
                               R"(INFO [ProcessManager] Configuring DNS for interface "first" to "1.1.1.1")",
                               R"(INFO [ProcessManager] Waiting for interface "first" to be UP (max 10000 ms))",
                           }));
}

TEST_F(TunCompanionWait, takesTheNextOverrideAfterTheQueueWasEmpty)
{
    adapters.adapters = {upAdapter};
    companion.configureInterfaceDns("1.1.1.1", "ruvo-tun");
    companion.configureInterfaceDns("2.2.2.2", "ruvo-tun");
    EXPECT_EQ(log.linesWith("Configuring DNS").size(), 2);
}

// Quitting is asked for once in the life of an application.
TEST_IN_OWN_PROCESS(TunCompanionQuit, endsTheWaitAndWhatIsQueuedBehindIt)
{
    int argc = 1;
    char name[] = "test";
    char *argv[] = {name, nullptr};
    QCoreApplication application(argc, argv);
    const test::FakeAdapters adapters;
    const test::LogCapture log;
    TunCompanion companion;
    QTimer::singleShot(0, [&] { companion.configureInterfaceDns("1.1.1.1", "first"); });
    QTimer::singleShot(0, [&] { companion.configureInterfaceDns("2.2.2.2", "second"); });
    QTimer::singleShot(300, [] { requestQuit(); });
    QElapsedTimer timer;
    timer.start();
    QCoreApplication::exec(); // ends by the quit that came within the wait
    EXPECT_GE(timer.elapsed(), 290);
    EXPECT_LT(timer.elapsed(), 8000);
    // Not a word of the wait that has ended, nor of what was queued.
    EXPECT_EQ(log.lines(), QStringList({
                               R"(INFO [ProcessManager] Configuring DNS for interface "first" to "1.1.1.1")",
                               R"(INFO [ProcessManager] Waiting for interface "first" to be UP (max 10000 ms))",
                           }));

    EXPECT_FALSE(companion.waitForInterfaceUp("ruvo-tun", 10000));
    EXPECT_LT(timer.elapsed(), 8000);
}

} // namespace
} // namespace ruvo
