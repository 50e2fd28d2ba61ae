#include "unit/nat/tcp_nat_table_fixture.h"

#include <atomic>
#include <set>
#include <thread>
#include <vector>

namespace ruvo {
namespace {

TEST_F(TcpNatTableTest, beginsAt30000AndCountsUp)
{
    EXPECT_EQ(open(5000), 30000);
    EXPECT_EQ(open(5001), 30001);
    EXPECT_EQ(open(5002), 30002);
    EXPECT_EQ(m_table.size(), 3u);
}

TEST_F(TcpNatTableTest, keepsThePortOfARepeatedSyn)
{
    EXPECT_EQ(open(5000), 30000);
    pass(3 * second);
    EXPECT_EQ(open(5000), 30000);
    m_table.accept(30000);
    EXPECT_EQ(open(5000), 30000);
    EXPECT_EQ(m_table.size(), 1u);
    EXPECT_EQ(open(5001), 30001) << "the counter did not move";
}

TEST_F(TcpNatTableTest, writesDownWhatTheSynSaid)
{
    const TcpNatSessionPtr session = m_table.findByNatPort(m_table.allocateNatPort(client, 5000, server, 443));
    ASSERT_TRUE(session);
    EXPECT_EQ(session->client(), (Endpoint{client, 5000}));
    EXPECT_EQ(session->destination(), (Endpoint{server, 443}));
    EXPECT_EQ(session->natPort, 30000);
    EXPECT_EQ(session->created, m_now);
    EXPECT_TRUE(session->active);
}

TEST_F(TcpNatTableTest, tellsEachPartOfAConnectionApart)
{
    const std::set<std::uint16_t> ports{
        m_table.allocateNatPort(client, 5000, server, 443), m_table.allocateNatPort(client + 1, 5000, server, 443),
        m_table.allocateNatPort(client, 5001, server, 443), m_table.allocateNatPort(client, 5000, server + 1, 443),
        m_table.allocateNatPort(client, 5000, server, 444),
    };
    EXPECT_EQ(ports.size(), 5u);
}

TEST_F(TcpNatTableTest, hasTwoLiveConnectionsFromOneClientPort)
{
    const TcpNatSessionPtr one = accepted(5000, server);
    const TcpNatSessionPtr other = accepted(5000, otherServer);
    EXPECT_NE(one->natPort, other->natPort);
    EXPECT_EQ(find(5000, server), one->natPort);
    EXPECT_EQ(find(5000, otherServer), other->natPort);
    m_table.end(one);
    pass(TcpNatTable::lingerTime);
    m_table.expire();
    EXPECT_EQ(find(5000, server), 0);
    EXPECT_EQ(find(5000, otherServer), other->natPort);
}

TEST_F(TcpNatTableTest, findsTheNewestOfAClientsConnections)
{
    EXPECT_EQ(m_table.findByClient(client, 5000), nullptr);
    open(5000, server);
    pass(moment);
    const std::uint16_t newest = open(5000, otherServer); // before the first in the order of addresses
    pass(moment);
    open(4999);
    open(5001);
    m_table.allocateNatPort(client + 1, 5000, server, 443);
    ASSERT_TRUE(m_table.findByClient(client, 5000));
    EXPECT_EQ(m_table.findByClient(client, 5000)->natPort, newest);
    EXPECT_EQ(m_table.findByClient(client, 5002), nullptr);
    EXPECT_EQ(m_table.findByClient(client - 1, 5000), nullptr);
}

TEST_F(TcpNatTableTest, findsNothingThatWasNotOpened)
{
    open(5000);
    EXPECT_EQ(find(5001), 0);
    EXPECT_EQ(m_table.findByNatPort(30001), nullptr);
    EXPECT_EQ(m_table.accept(30001), nullptr);
    EXPECT_EQ(m_table.findByNatPort(0), nullptr);
}

TEST_F(TcpNatTableTest, handsEveryPortOutOnceButNever0)
{
    std::set<std::uint16_t> ports;
    for (int port = 1; port <= allPorts; ++port)
        ports.insert(open(port));
    EXPECT_EQ(ports.size(), std::size_t{allPorts});
    EXPECT_FALSE(ports.contains(0));
    EXPECT_EQ(m_table.size(), std::size_t{allPorts});
}

TEST_F(TcpNatTableTest, wrapsFrom65535To1)
{
    for (int port = 30000; port < 65535; ++port)
        open(port);
    EXPECT_EQ(open(65535), 65535);
    EXPECT_EQ(open(1), 1);
    EXPECT_EQ(open(2), 2);
}

TEST_F(TcpNatTableTest, skipsPortsInUseAfterTheWrap)
{
    const TcpNatSessionPtr lasting = accepted(1);     // 30000
    const TcpNatSessionPtr alsoLasting = accepted(2); // 30001
    for (int round = 0; round < allPorts - 2; ++round)
        m_table.end(accepted(3));
    pass(TcpNatTable::lingerTime);
    m_table.expire();
    EXPECT_EQ(m_table.size(), 2u);
    EXPECT_EQ(open(4), 30002) << "30000 and 30001 are in use";
    EXPECT_EQ(m_table.findByNatPort(30000), lasting);
    EXPECT_EQ(m_table.findByNatPort(30001), alsoLasting);
}

TEST_F(TcpNatTableTest, findsTheOnlyFreePortWhereverItIs)
{
    fill();
    const TcpNatSessionPtr freed = m_table.accept(29998);
    m_table.end(freed);
    pass(TcpNatTable::lingerTime);
    for (int port = 1; port <= allPorts; ++port) {
        if (port != freed->natPort)
            m_table.accept(static_cast<std::uint16_t>(port));
    }
    m_table.expire();
    ASSERT_EQ(m_table.size(), std::size_t{allPorts - 1});
    EXPECT_EQ(open(1, otherServer), 29998);
}

// A client resets its connection and opens the same one anew: its SYN may come before the end of the old one is

// known, and so may its accept.

TEST_F(TcpNatTableTest, givesNothingWhenEveryPortIsAlive)
{
    fill();
    EXPECT_EQ(open(1, otherServer), 0);
    EXPECT_EQ(m_table.size(), std::size_t{allPorts});
    EXPECT_NE(open(1), 0) << "but what is known stays";
}

TEST_F(TcpNatTableTest, takesThePortThatEndedFirstWhenNoneIsFree)
{
    fill();
    const TcpNatSessionPtr endedFirst = m_table.accept(40000);
    const TcpNatSessionPtr endedSecond = m_table.accept(35000);
    m_table.end(endedFirst);
    m_table.end(endedSecond);
    EXPECT_EQ(open(1, otherServer), 40000);
    EXPECT_EQ(open(2, otherServer), 35000);
    EXPECT_EQ(open(3, otherServer), 0);
    EXPECT_EQ(find(endedFirst->client().port), 0) << "the old connection is forgotten";
    EXPECT_EQ(m_table.findByNatPort(40000)->destination().address, otherServer);
}

TEST_F(TcpNatTableTest, givesASynAfterTheEndAPortOfItsOwn)
{
    const TcpNatSessionPtr ended = accepted(5000);
    m_table.end(ended);
    EXPECT_FALSE(ended->active);
    EXPECT_EQ(find(5000), 30000) << "its closing segments are still rewritten";
    EXPECT_EQ(open(5000), 30001);
    EXPECT_EQ(find(5000), 30001);
    EXPECT_EQ(m_table.findByNatPort(30000), ended) << "both ways";
}

TEST_F(TcpNatTableTest, forgetsAnEndedConnectionAfterTwoMinutes)
{
    m_table.end(accepted(5000));
    pass(120 * second - moment);
    m_table.expire();
    EXPECT_EQ(find(5000), 30000);
    EXPECT_TRUE(m_table.findByNatPort(30000));
    pass(moment);
    m_table.expire();
    EXPECT_EQ(find(5000), 0);
    EXPECT_EQ(m_table.findByNatPort(30000), nullptr);
    EXPECT_EQ(m_table.findByClient(client, 5000), nullptr);
    EXPECT_EQ(m_table.size(), 0u);
}

TEST_F(TcpNatTableTest, forgetsInTheOrderOfTheEnds)
{
    const TcpNatSessionPtr openedFirst = accepted(5000);
    const TcpNatSessionPtr endedFirst = accepted(5001);
    m_table.end(endedFirst);
    pass(60 * second);
    m_table.end(openedFirst);
    pass(60 * second);
    m_table.expire();
    EXPECT_EQ(find(5001), 0);
    EXPECT_EQ(find(5000), openedFirst->natPort);
}

TEST_F(TcpNatTableTest, doesNotTouchTheSuccessorOfAnEndedConnection)
{
    const TcpNatSessionPtr old = accepted(5000);
    m_table.end(old);
    const TcpNatSessionPtr successor = accepted(5000);
    m_table.end(old); // a late word about the old one
    pass(TcpNatTable::lingerTime);
    m_table.expire();
    EXPECT_EQ(m_table.findByNatPort(old->natPort), nullptr);
    EXPECT_TRUE(successor->active);
    EXPECT_EQ(find(5000), successor->natPort);
    EXPECT_EQ(m_table.findByNatPort(successor->natPort), successor);
    EXPECT_EQ(m_table.size(), 1u);
}

TEST_F(TcpNatTableTest, doesNotTouchTheSuccessorOnTheSamePort)
{
    fill();
    const TcpNatSessionPtr old = m_table.accept(40000);
    m_table.end(old);
    ASSERT_EQ(open(1, otherServer), 40000);
    const TcpNatSessionPtr successor = m_table.accept(40000);
    m_table.end(old);
    pass(TcpNatTable::lingerTime);
    m_table.expire();
    EXPECT_EQ(m_table.findByNatPort(40000), successor);
    EXPECT_TRUE(successor->active);
    EXPECT_EQ(m_table.size(), 1u) << "all others were never accepted";
}

TEST_F(TcpNatTableTest, endsAConnectionOnce)
{
    const TcpNatSessionPtr session = accepted(5000);
    m_table.end(session);
    pass(119 * second);
    m_table.end(session); // does not prolong its linger time
    pass(second);
    m_table.expire();
    EXPECT_EQ(m_table.size(), 0u);
}

TEST_F(TcpNatTableTest, isEmptyForGoodAfterItsClose)
{
    const TcpNatSessionPtr session = accepted(5000);
    open(5001);
    m_table.close();
    EXPECT_EQ(m_table.size(), 0u);
    EXPECT_EQ(find(5000), 0);
    EXPECT_EQ(m_table.findByNatPort(30000), nullptr);
    EXPECT_EQ(m_table.findByClient(client, 5000), nullptr);
    EXPECT_EQ(m_table.accept(30001), nullptr);
    EXPECT_EQ(open(5002), 0);
    m_table.end(session); // a relay that ends late
    pass(TcpNatTable::lingerTime);
    m_table.expire();
    EXPECT_EQ(m_table.size(), 0u);
}

// The reader thread opens and looks up, workers accept, relays end, flow control expires: all at once.

TEST(TcpNatTableThreads, agreeOnWhoIsWho)
{
    constexpr int rounds = 3000;
    std::atomic<SteadyTime> now = SteadyTime(second);
    TcpNatTable table([&now] { return now.load(); });
    std::atomic<bool> stop = false;
    std::atomic<int> wrong = 0;
    std::thread housekeeping([&] {
        while (!stop) {
            now = now.load() + 10 * second;
            table.expire();
            std::this_thread::yield();
        }
    });
    std::vector<std::thread> threads;
    for (std::uint32_t own = 1; own <= 3; ++own) {
        threads.emplace_back([&, own] {
            for (int round = 0; round < rounds; ++round) {
                const auto port = static_cast<std::uint16_t>(round % 7);
                const std::uint16_t natPort = table.allocateNatPort(own, port, server, 80);
                // Housekeeping may have been faster than a minute is long.
                const TcpNatSessionPtr session = table.accept(natPort);
                if (!session)
                    continue;
                if (session->natPort != natPort)
                    ++wrong;
                // It may be another client's by now, if ours expired before its accept.
                if (session->client().address != own)
                    continue;
                if (table.findByNatPort(natPort) != session
                    || table.findNatPort({{own, port}, {server, 80}}) != natPort)
                    ++wrong;
                if (!table.findByClient(own, port))
                    ++wrong;
                table.end(session);
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    stop = true;
    housekeeping.join();
    EXPECT_EQ(wrong, 0);
    now = now.load() + TcpNatTable::lingerTime;
    table.expire();
    EXPECT_EQ(table.size(), 0u);
}

TEST(TcpNatTableThreads, mayCloseItAtAnyMoment)
{
    TcpNatTable table;
    std::vector<std::thread> threads;
    for (std::uint32_t own = 1; own <= 3; ++own) {
        threads.emplace_back([&table, own] {
            for (std::uint16_t port = 1; port != 0; ++port) {
                const std::uint16_t natPort = table.allocateNatPort(own, port, server, 80);
                if (natPort == 0)
                    break; // closed
                if (const TcpNatSessionPtr session = table.accept(natPort))
                    table.end(session);
            }
        });
    }
    while (table.size() < 1000)
        std::this_thread::yield();
    table.close();
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(table.size(), 0u);
}

} // namespace
} // namespace ruvo
