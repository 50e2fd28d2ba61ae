#pragma once

#include "windows/nat/nat_test.h"

#include "nat/relay_table.h"

#include <atomic>
#include <memory>

namespace ruvo::test {

/// Relays between an application and a server, both of which are the test's.
class RelaySessionTest : public NatTest
{
protected:
    struct Ends
    {
        Socket application;
        Socket server;
        RelaySessionPtr relay;
    };

    /// A relay in the table that is not started yet.
    Ends make()
    {
        StreamPair application = streamPair();
        StreamPair server = streamPair();
        const std::uint64_t id = m_table.nextId();
        auto relay = std::make_shared<RelaySession>(id, std::move(application.theirs), std::move(server.theirs),
                                                    false, m_port, [this, id] {
                                                        m_table.remove(id);
                                                        ++m_closed;
                                                    });
        EXPECT_TRUE(m_table.insert(relay));
        return {std::move(application.mine), std::move(server.mine), std::move(relay)};
    }
    Ends start()
    {
        Ends ends = make();
        ends.relay->start();
        return ends;
    }

    /// Whether so many relays have closed, each once, and left nothing in flight.
    bool waitForClosed(int count)
    {
        return waitUntil([this, count] { return m_closed >= count && m_port.inFlight() == 0; }) && m_closed == count;
    }

    void TearDown() override
    {
        m_table.closeAll();
        NatTest::TearDown();
    }

    RelayTable m_table;
    std::atomic<int> m_closed = 0;
};

} // namespace ruvo::test
