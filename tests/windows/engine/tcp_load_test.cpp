// Many connections at once, opened, used and ended at random by several threads: what comes back is what was sent,
// and in the end nothing is in flight, no record and no handle is left. 5 s, or 60 s with RUVOD_WHOLE=1.

#include "windows/engine/echo_proxy.h"
#include "windows/engine/tcp_engine_fixture.h"

#include "windows/support/own_resources.h"

#include <array>
#include <random>
#include <thread>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;

class TcpLoadTest : public TcpEngineTest
{
protected:
    static constexpr std::size_t held = 500;
    static constexpr std::size_t threads = 4;

    struct Slot
    {
        std::optional<Application> app;
        bool isOpen = false;
        QByteArray sent;
    };
    struct Counts
    {
        unsigned opened = 0;
        unsigned established = 0;
        qsizetype echoed = 0;
        unsigned wrong = 0;
    };

    /// What has come for the connection. False if it has ended.
    bool readAll(Slot &slot, Counts &counts)
    {
        Application &app = *slot.app;
        while (m_adapter.unread(app.port()) > 0) {
            if (!slot.isOpen) {
                const std::optional<Reply> reply = app.next();
                if (reply->flags != (tcpSyn | tcpAck))
                    return false;
                app.acknowledgement = reply->seq + 1;
                slot.isOpen = true;
                ++counts.established;
                ++m_established;
            } else if (!app.read()) {
                return false;
            }
        }
        const qsizetype size = app.received.size();
        if (!slot.sent.startsWith(app.received))
            ++counts.wrong;
        counts.echoed += size;
        app.received.clear();
        slot.sent.remove(0, size);
        if (slot.isOpen)
            app.send(tcpAck);
        return !app.isFinished;
    }

    void act(Slot &slot, std::uint16_t newPort, std::mt19937 &random, Counts &counts)
    {
        if (!slot.app) {
            slot.app.emplace(*m_engine, m_adapter, FlowKey{{guest, newPort}, {server, 443}},
                             static_cast<std::uint32_t>(random()));
            slot.app->send(tcpSyn);
            ++counts.opened;
            return;
        }
        Application &app = *slot.app;
        bool isOver = !readAll(slot, counts);
        // One that is still opening is left alone, mostly.
        switch (isOver ? 0 : random() % (slot.isOpen ? 16 : 256)) {
        case 0: app.send(tcpRst); break;
        case 1: app.send(tcpFin | tcpAck); break;
        default:
            if (slot.isOpen && slot.sent.size() < 100'000) {
                const QByteArray bytes = pattern(static_cast<qsizetype>(1 + random() % 1400), app.nextSequence);
                slot.sent += bytes;
                app.send(tcpPsh | tcpAck, bytes);
            }
            return;
        }
        m_adapter.forget(app.port());
        slot.app.reset();
        slot.isOpen = false;
        slot.sent.clear();
    }

    /// By all of them so far.
    std::atomic<unsigned> m_established = 0;

    /// One application's host: slots and ports of its own.
    Counts use(std::size_t part, const std::atomic<bool> &stops)
    {
        Counts counts;
        std::mt19937 random(static_cast<unsigned>(part));
        std::vector<Slot> mine(held / threads);
        constexpr std::size_t ports = 60'000 / threads;
        while (!stops) {
            const std::size_t port = 2'000 + part * ports + counts.opened % ports;
            act(mine[random() % mine.size()], static_cast<std::uint16_t>(port), random, counts);
            std::this_thread::sleep_for(1ms); // leaves the processors to those who answer
        }
        return counts;
    }
};

TEST_F(TcpLoadTest, leavesNothingBehind)
{
    EchoProxy proxy;
    usePort(proxy.port());
    startFlowControl();
    const auto runFor = [&](std::chrono::milliseconds time, unsigned established) {
        m_established = 0;
        std::atomic<bool> stops = false;
        std::array<Counts, threads> counts;
        std::vector<std::thread> users;
        for (std::size_t i = 0; i < threads; ++i)
            users.emplace_back([&, i] { counts[i] = use(i, stops); });
        // The proxy is slow where others have the processors: it has to have answered so many in any case.
        const auto start = std::chrono::steady_clock::now();
        const auto isOver = [&] {
            const auto passed = std::chrono::steady_clock::now() - start;
            return passed >= time && (m_established >= established || passed >= time + 30s);
        };
        for (unsigned round = 0; !isOver(); ++round) {
            m_adapter.setRoom(round % 4 == 0 ? std::optional<std::size_t>(0) : std::nullopt);
            std::this_thread::sleep_for(20ms); // the adapter stays full, or not, for so long
            if (round % 100 == 99)
                m_engine->resetAll();
            m_engine->housekeeping();
        }
        stops = true;
        for (std::thread &user : users)
            user.join();
        m_adapter.setRoom(std::nullopt);
        m_engine->resetAll();
        expectGone();
        m_adapter.forgetAll(); // the next run has the same ports
        Counts all;
        for (const Counts &part : counts) {
            all.opened += part.opened;
            all.established += part.established;
            all.echoed += part.echoed;
            all.wrong += part.wrong;
        }
        return all;
    };
    runFor(500ms, 0); // what the first use of each thing keeps
    const std::size_t handles = countOwnHandles();
    const Counts counts = runFor(qEnvironmentVariableIntValue("RUVOD_WHOLE") == 1 ? 60s : 5s, held);
    printf("%u connections opened, %u established, %lld bytes came back\n", counts.opened, counts.established,
           static_cast<long long>(counts.echoed));
    EXPECT_EQ(counts.wrong, 0u);
    EXPECT_GT(counts.opened, unsigned{held});
    EXPECT_GE(counts.established, unsigned{held});
    EXPECT_GT(counts.echoed, 100'000);
    // A lock that is contended for the first time keeps an event of its own; a leak would be one for each connection.
    constexpr std::size_t events = 20;
    EXPECT_TRUE(waitForHandles(handles + events)) << countOwnHandles() << " handles, " << handles << " before";
}

} // namespace
} // namespace ruvo::test
