#include "daemon/request_queue.h"

#include "support/wait_until.h"

#include <gtest/gtest.h>

#include <QStringList>
#include <QTimer>

#include <chrono>
#include <functional>
#include <memory>
#include <utility>

namespace ruvo {
namespace {

using namespace std::chrono_literals;
using test::waitUntil;

/// A queue whose requests take as much time as the test says, and a record of what becomes of them.
class RequestQueueTest : public ::testing::Test
{
protected:
    RequestQueueTest()
    {
        RequestQueue::Services services;
        services.handle = [this](const QString &client, const QJsonObject &message) {
            const QString name = client + QString::number(message["n"].toInt());
            handled.append(name);
            now += duration;
            if (handler)
                handler(name);
        };
        services.holdBack = [this](const QString &client, bool held) {
            holds.append((held ? "hold " : "release ") + client);
        };
        services.clock = [this] { return now; };
        queue = std::make_unique<RequestQueue>(std::move(services));
    }

    /// Requests of this client with the numbers from `first` to `last`.
    void add(const QString &client, int first, int last, qsizetype size = 10)
    {
        for (int n = first; n <= last; ++n)
            queue->add(client, {{"n", n}}, size);
    }
    void addDeparture(const QString &client)
    {
        queue->addDeparture(client, [this, client] { handled.append(client + " left"); });
    }
    bool handles(const QStringList &requests)
    {
        return waitUntil([&] { return handled.size() >= requests.size(); }) && handled == requests;
    }

    SteadyTime now;
    std::chrono::milliseconds duration{0};
    std::function<void(const QString &request)> handler;
    QStringList handled;
    QStringList holds;
    std::unique_ptr<RequestQueue> queue;
};

TEST_F(RequestQueueTest, handlesRequestsFromTheEventLoopOnly)
{
    add("a", 1, 2);
    EXPECT_EQ(handled, QStringList());
    EXPECT_TRUE(queue->isBusy("a"));
    EXPECT_TRUE(handles({"a1", "a2"}));
    EXPECT_FALSE(queue->isBusy("a"));
}

TEST_F(RequestQueueTest, handlesTheRequestsOfAClientInTheirOrder)
{
    add("a", 1, 1000);
    QStringList expected;
    for (int n = 1; n <= 1000; ++n)
        expected.append('a' + QString::number(n));
    EXPECT_TRUE(handles(expected));
}

TEST_F(RequestQueueTest, givesEachClientItsTurn)
{
    add("a", 1, 5);
    add("b", 1, 2);
    add("c", 1, 1);
    EXPECT_TRUE(handles({"a1", "b1", "c1", "a2", "b2", "a3", "a4", "a5"}));
}

TEST_F(RequestQueueTest, letsANewcomerWaitForOneRequestOfAFlood)
{
    add("a", 1, 4);
    handler = [this](const QString &request) {
        if (request == "a1")
            add("b", 1, 1);
    };
    EXPECT_TRUE(handles({"a1", "b1", "a2", "a3", "a4"}));
}

TEST_F(RequestQueueTest, worksFiftyMillisecondsATurnOfTheLoop)
{
    duration = 20ms;
    add("a", 1, 7);
    QList<qsizetype> handledByTurn;
    // A zero timer comes once a turn.
    QTimer turn;
    QObject::connect(&turn, &QTimer::timeout, [&] {
        if (handledByTurn.isEmpty() || handledByTurn.last() != handled.size())
            handledByTurn.append(handled.size());
    });
    turn.start(0);
    ASSERT_TRUE(waitUntil([&] { return !handledByTurn.isEmpty() && handledByTurn.last() == 7; }));
    handledByTurn.removeAll(0);
    EXPECT_EQ(handledByTurn, (QList<qsizetype>{3, 6, 7}));
}

TEST_F(RequestQueueTest, letsADepartureWaitBehindTheClientsRequests)
{
    add("a", 1, 2);
    add("b", 1, 3);
    addDeparture("a");
    EXPECT_EQ(handled, QStringList());
    EXPECT_TRUE(handles({"a1", "b1", "a2", "b2", "a left", "b3"}));
    EXPECT_FALSE(queue->isBusy("a"));
}

TEST_F(RequestQueueTest, runsTheDepartureOfAnIdleClientAtOnce)
{
    add("b", 1, 1);
    addDeparture("a");
    EXPECT_EQ(handled, QStringList{"a left"});
    EXPECT_TRUE(handles({"a left", "b1"}));
}

// What waits

TEST_F(RequestQueueTest, holdsAClientBackOnceAMebibyteWaits)
{
    constexpr int quarter = 256 * 1024 - RequestQueue::requestOverhead;
    add("a", 1, 3, quarter);
    add("b", 1, 3, quarter);
    EXPECT_EQ(holds, QStringList());
    add("a", 4, 5, quarter);
    EXPECT_EQ(holds, QStringList{"hold a"}) << "once, and nobody else";
    handler = [this](const QString &request) {
        if (request == "a2") {
            EXPECT_EQ(holds, QStringList{"hold a"});
        } else if (request == "a3") {
            EXPECT_EQ(holds, (QStringList{"hold a", "release a"})) << "half of it is left";
        }
    };
    ASSERT_TRUE(waitUntil([this] { return handled.size() == 8; }));
    EXPECT_EQ(holds.size(), 2);
}

TEST_F(RequestQueueTest, holdsAClientBackAgain)
{
    for (int n = 1; n <= 3; ++n) {
        add("a", n, n, 2 * RequestQueue::maxWaitingBytes);
        ASSERT_TRUE(waitUntil([&] { return handled.size() == n; }));
    }
    EXPECT_EQ(holds, (QStringList{"hold a", "release a", "hold a", "release a", "hold a", "release a"}));
}

TEST_F(RequestQueueTest, countsWhatASmallRequestTakesBesideItsLength)
{
    int n = 0;
    while (holds.isEmpty() && n < 500000)
        queue->add("a", {{"n", ++n}}, 2);
    EXPECT_LE(n, RequestQueue::maxWaitingBytes / RequestQueue::requestOverhead);
}

// Handlers that run an event loop of their own

TEST_F(RequestQueueTest, goesOnWithTheOthersWhileAHandlerRunsALoop)
{
    add("a", 1, 2);
    add("b", 1, 2);
    handler = [this](const QString &request) {
        if (request != "a1")
            return;
        EXPECT_TRUE(waitUntil([this] { return handled.contains("b2"); })) << "though nothing new came";
        addDeparture("a");
        add("b", 3, 3);
        EXPECT_TRUE(waitUntil([this] { return handled.contains("b3"); }));
        EXPECT_TRUE(queue->isBusy("a"));
        EXPECT_FALSE(queue->isBusy("b"));
    };
    EXPECT_TRUE(handles({"a1", "b1", "b2", "b3", "a2", "a left"}));
}

TEST_F(RequestQueueTest, letsTheNextRequestOfAClientWaitForALoopInTheOneBefore)
{
    handler = [this](const QString &request) {
        if (request != "a1")
            return;
        add("a", 2, 2);
        addDeparture("a");
        for (int turn = 0; turn < 5; ++turn)
            test::processPending();
        EXPECT_EQ(handled, QStringList{"a1"});
    };
    add("a", 1, 1);
    EXPECT_TRUE(handles({"a1", "a2", "a left"}));
}

// The end

TEST_F(RequestQueueTest, runsTheDeparturesThatWaitAtTheEndAndNothingElse)
{
    add("a", 1, 2);
    add("b", 1, 1);
    addDeparture("a");
    queue->finishDepartures();
    EXPECT_EQ(handled, QStringList{"a left"});
    for (int turn = 0; turn < 5; ++turn)
        test::processPending();
    EXPECT_EQ(handled, QStringList{"a left"});
    EXPECT_FALSE(queue->isBusy("b"));
}

TEST_F(RequestQueueTest, mayBeEndedWhileAHandlerRunsALoop)
{
    add("a", 1, 2);
    addDeparture("a");
    handler = [this](const QString &) { queue->finishDepartures(); };
    ASSERT_TRUE(handles({"a1", "a left"}));
    for (int turn = 0; turn < 5; ++turn)
        test::processPending();
    EXPECT_EQ(handled.size(), 2);
}

} // namespace
} // namespace ruvo
