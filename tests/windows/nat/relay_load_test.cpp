// Many relays at once, opened and ended at random: nothing stays in flight, no handle is left.
// 5 s, or 60 s with RUVOD_WHOLE=1.

#include "windows/nat/relay_session_fixture.h"

#include "windows/support/own_resources.h"

#include <array>
#include <optional>
#include <random>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;

class RelayLoadTest : public RelaySessionTest
{
protected:
    static constexpr std::size_t relays = 1000;

    void act(std::optional<Ends> &slot)
    {
        if (!slot) {
            slot = start();
            slot->relay.reset();
            ++opened;
            return;
        }
        switch (m_random() % 8) {
        case 0: resetConnection(slot->application); return slot.reset();
        case 1: resetConnection(slot->server); return slot.reset();
        case 2: shutdown(slot->application.get(), SD_SEND); return slot.reset();
        case 3: {
            const QByteArray bytes = pattern(static_cast<qsizetype>(m_random() % 50'000), opened);
            u_long on = 1;
            ioctlsocket(slot->server.get(), static_cast<long>(FIONBIO), &on);
            send(slot->server.get(), bytes.constData(), static_cast<int>(bytes.size()), 0);
            return slot.reset(); // with what is on its way
        }
        default: {
            const QByteArray bytes = pattern(static_cast<qsizetype>(1 + m_random() % 20'000), opened);
            const bool isUpload = m_random() % 2 != 0;
            const SOCKET from = (isUpload ? slot->application : slot->server).get();
            const SOCKET to = (isUpload ? slot->server : slot->application).get();
            if (!sendAll(from, bytes) || receiveBytes(to, bytes.size()) != bytes)
                ++wrong;
            return;
        }
        }
    }

    std::mt19937 m_random{20'26};
    unsigned opened = 0;
    int wrong = 0;
};

TEST_F(RelayLoadTest, leavesNothingBehind)
{
    { // what the first use of each thing keeps
        Ends ends = start();
        sendUntilStalled(ends.server.get());
    }
    ASSERT_TRUE(waitForClosed(1));
    stopWorkers();
    const std::size_t handles = countOwnHandles();
    startWorkers();

    const auto duration = qEnvironmentVariableIntValue("RUVOD_WHOLE") ? 60s : 5s;
    std::vector<std::optional<Ends>> held(relays);
    for (std::optional<Ends> &slot : held)
        act(slot);
    EXPECT_TRUE(waitUntil([this] { return m_table.size() == relays; }));
    EXPECT_LE(m_port.inFlight(), std::int64_t{2 * relays});
    int actions = 0;
    for (const auto end = std::chrono::steady_clock::now() + duration; std::chrono::steady_clock::now() < end;
         ++actions)
        act(held[m_random() % relays]);
    printf("%u relays opened, %d things done to %zu of them at a time\n", opened, actions, relays);
    EXPECT_EQ(wrong, 0);
    EXPECT_GT(opened, relays);
    held.clear();

    EXPECT_TRUE(waitForClosed(static_cast<int>(opened) + 1))
        << m_closed << " closed, in flight: " << m_port.inFlight();
    EXPECT_EQ(m_table.size(), 0u);
    stopWorkers();
    EXPECT_EQ(m_port.inFlight(), 0);
    // A lock that is contended for the first time keeps an event of its own; a leak would be one for each relay.
    constexpr std::size_t events = 5;
    EXPECT_TRUE(waitForHandles(handles + events)) << countOwnHandles() << " handles, " << handles << " before";
    EXPECT_TRUE(m_log.lines().isEmpty()) << m_log.lines().join('\n').toStdString();
}

TEST_F(RelayLoadTest, areAllAbortedAtOnce)
{
    std::vector<Ends> all;
    for (int i = 0; i < 200; ++i) {
        all.push_back(start());
        sendAll(all.back().server.get(), pattern(30'000));
        all.back().relay.reset();
    }
    m_table.closeAll();
    EXPECT_TRUE(waitForClosed(200));
}

} // namespace
} // namespace ruvo::test
