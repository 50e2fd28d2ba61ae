// Who gets a connection that the listener has accepted, and how long the table waits for one.

#include "unit/nat/tcp_nat_table_fixture.h"

namespace ruvo {
namespace {

TEST_F(TcpNatTableTest, givesEachAcceptedConnectionASessionOfItsOwn)
{
    for (const bool endsBeforeTheAccept : {true, false}) {
        const TcpNatSessionPtr old = accepted(5000);
        const std::uint16_t natPort = open(5000);
        EXPECT_EQ(natPort, old->natPort);
        if (endsBeforeTheAccept)
            m_table.end(old);
        const TcpNatSessionPtr fresh = m_table.accept(natPort);
        if (!endsBeforeTheAccept)
            m_table.end(old);
        ASSERT_TRUE(fresh);
        EXPECT_NE(fresh, old);
        EXPECT_TRUE(fresh->active);
        EXPECT_EQ(fresh->destination().port, 443);
        EXPECT_EQ(m_table.findByClient(client, 5000), fresh);
        pass(TcpNatTable::lingerTime);
        m_table.expire();
        EXPECT_EQ(m_table.findByNatPort(natPort), fresh) << "the old one's end is not its end";
        EXPECT_EQ(find(5000), natPort);
        EXPECT_EQ(m_table.size(), 1u);
        m_table.end(fresh);
        pass(TcpNatTable::lingerTime);
        m_table.expire();
        EXPECT_EQ(m_table.size(), 0u);
    }
}

TEST_F(TcpNatTableTest, leavesTheNewerConnectionWhenTheOldPortIsAcceptedLate)
{
    const TcpNatSessionPtr old = accepted(5000);
    m_table.end(old);
    const std::uint16_t newerPort = open(5000); // the same flow once more, on a port of its own
    ASSERT_NE(newerPort, old->natPort);
    const TcpNatSessionPtr late = m_table.accept(old->natPort);
    ASSERT_TRUE(late);
    EXPECT_EQ(m_table.findByNatPort(old->natPort), late);
    EXPECT_EQ(find(5000), newerPort) << "the client's packets belong to what it opened last";
}

TEST_F(TcpNatTableTest, doesNotTakeThePortOfAConnectionThatWasOpenedAnew)
{
    fill();
    const TcpNatSessionPtr old = m_table.accept(find(5000));
    m_table.end(old);
    const TcpNatSessionPtr fresh = m_table.accept(old->natPort);
    EXPECT_EQ(open(1, otherServer), 0);
    EXPECT_EQ(m_table.findByNatPort(old->natPort), fresh);
}

TEST_F(TcpNatTableTest, forgetsAConnectionThatNobodyAcceptsWithinAMinute)
{
    open(5000);
    pass(60 * second - moment);
    m_table.expire();
    EXPECT_EQ(find(5000), 30000);
    pass(moment);
    const TcpNatSessionPtr session = m_table.findByNatPort(30000);
    m_table.expire();
    EXPECT_EQ(find(5000), 0);
    EXPECT_EQ(m_table.accept(30000), nullptr);
    EXPECT_FALSE(session->active);
    EXPECT_EQ(m_table.size(), 0u);
    m_table.end(session);
    pass(TcpNatTable::lingerTime);
    m_table.expire();
    EXPECT_EQ(m_table.size(), 0u);
}

TEST_F(TcpNatTableTest, keepsAnAcceptedConnectionForEver)
{
    const TcpNatSessionPtr session = accepted(5000);
    for (int hour = 0; hour < 100; ++hour) {
        pass(3600 * second);
        m_table.expire();
    }
    EXPECT_EQ(find(5000), 30000);
    EXPECT_TRUE(session->active);
}

TEST_F(TcpNatTableTest, expiresWhatIsNotAcceptedBetweenThingsThatAre)
{
    accepted(5000);
    open(5001);
    m_table.end(accepted(5002));
    pass(second);
    open(5003);
    pass(59 * second);
    m_table.expire();
    EXPECT_NE(find(5000), 0);
    EXPECT_EQ(find(5001), 0);
    EXPECT_NE(find(5002), 0) << "it lingers";
    EXPECT_NE(find(5003), 0) << "its minute is not over";
}

} // namespace
} // namespace ruvo
