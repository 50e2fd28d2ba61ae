#include "common/quit.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include <chrono>
#include <thread>

namespace ruvo {
namespace {

using namespace std::chrono_literals;

/// An application of its own for each test, as quitting is once for each.
class RequestQuit : public ::testing::Test
{
protected:
    static constexpr int quitted = 0;
    static constexpr int hung = 99;

    /// Runs the application's loop; `hung` if nobody ends it.
    static int run(std::chrono::milliseconds patience = 10s)
    {
        QTimer::singleShot(patience, qApp, [] { QCoreApplication::exit(hung); });
        return QCoreApplication::exec();
    }

    int argc = 1;
    char name[6] = "ruvod";
    char *argv[2] = {name, nullptr};
    QCoreApplication application{argc, argv};
};

TEST_F(RequestQuit, isNotLostBeforeTheLoopRuns)
{
    requestQuit();
    EXPECT_EQ(run(), quitted);
}

TEST_F(RequestQuit, endsTheRunningLoop)
{
    QTimer::singleShot(0, qApp, requestQuit);
    EXPECT_EQ(run(), quitted);
}

TEST_F(RequestQuit, comesFromAnyThread)
{
    std::thread thread;
    QTimer::singleShot(0, qApp, [&] { thread = std::thread(requestQuit); });
    EXPECT_EQ(run(), quitted);
    thread.join();
}

TEST_F(RequestQuit, saysItOnTheServiceThreadAfterTheLoopWasAskedToEnd)
{
    std::thread thread;
    bool said = false;
    QTimer::singleShot(0, qApp, [&] {
        thread = std::thread([&, serviceThread = std::this_thread::get_id()] {
            requestQuitAndThen([&, serviceThread] {
                EXPECT_EQ(std::this_thread::get_id(), serviceThread);
                said = true;
                QEventLoop loop; // would hang in here, had the application not been asked to end
                EXPECT_EQ(loop.exec(), -1);
            });
        });
    });
    EXPECT_EQ(run(), quitted);
    EXPECT_TRUE(said) << "before the loop has ended";
    thread.join();
}

TEST_F(RequestQuit, saysItOfEachRequest)
{
    int said = 0;
    for (int i = 0; i < 3; ++i)
        requestQuitAndThen([&] { ++said; });
    EXPECT_EQ(run(), quitted);
    EXPECT_EQ(said, 3);
}

TEST_F(RequestQuit, doesNotEndTheLoopFromWithinTheCall)
{
    bool returned = false;
    QTimer::singleShot(0, qApp, [&] {
        requestQuit();
        EXPECT_TRUE(quitRequested()); // which is known at once
        returned = true;
    });
    EXPECT_EQ(run(), quitted);
    EXPECT_TRUE(returned);
}

TEST_F(RequestQuit, isKnownOnceTheLoopWasAskedToEnd)
{
    EXPECT_FALSE(quitRequested());
    requestQuit();
    EXPECT_EQ(run(), quitted);
    EXPECT_TRUE(quitRequested());
}

TEST_F(RequestQuit, aLeftOverRequestDoesNotEndALaterLoop)
{
    requestQuit();
    requestQuit();
    EXPECT_EQ(run(), quitted);
    // The second is still posted when the shutdown runs a loop again.
    requestQuit();
    EXPECT_EQ(run(100ms), hung);
}

TEST_F(RequestQuit, aLeftOverRequestDoesNotEndTheLoopsInWhichTheShutdownWaits)
{
    requestQuit();
    requestQuit();
    EXPECT_EQ(run(), quitted);
    requestQuit();
    QEventLoop loop;
    constexpr int waited = 7;
    QTimer::singleShot(100ms, &loop, [&] { loop.exit(waited); });
    EXPECT_EQ(loop.exec(), waited);
}

TEST(RequestQuitOfAnEarlierApplication, isForgottenThoughItNeverReachedTheLoop)
{
    int argc = 1;
    char name[] = "ruvod";
    char *argv[] = {name, nullptr};
    {
        const QCoreApplication earlier(argc, argv);
        requestQuit();
        EXPECT_TRUE(quitRequested());
    }
    const QCoreApplication application(argc, argv);
    EXPECT_FALSE(quitRequested());
}

TEST_F(RequestQuit, endsTheNextApplicationAsWell)
{
    EXPECT_FALSE(quitRequested());
    requestQuit();
    EXPECT_EQ(run(), quitted);
}

} // namespace
} // namespace ruvo

// In place of the common one: these tests make their own applications.
int main(int argc, char **argv)
{
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
