// An application as a TCP has to be, small: sends in order and again what was not acknowledged in time, keeps what it
// receives early out, and changes its window. Between it and the engine packets are doubled, change places and (only
// on the way in, where the application sends again) are lost; the adapter is full at times. Every byte arrives once
// and in order, both ways.
//
// Its segments never overlap: it always cuts its stream at the same places.

#include "engine/tcp_stream.h"

#include "unit/engine/tcp_packets.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <optional>
#include <random>
#include <span>
#include <utility>
#include <vector>

namespace ruvo::test {
namespace {

class Random
{
public:
    explicit Random(std::uint32_t seed) : m_engine(seed) {}
    std::uint32_t below(std::uint32_t limit) { return static_cast<std::uint32_t>(m_engine() % limit); }
    bool oneIn(std::uint32_t chances) { return below(chances) == 0; }

private:
    std::mt19937 m_engine;
};

/// A segment of the application on its way, with bytes of its own.
struct OnItsWay
{
    TcpSegment segment;
    Bytes payload;
};

class TcpModel : public ::testing::TestWithParam<std::uint32_t>
{
protected:
    static constexpr std::uint32_t patience = 50; ///< turns, until the application sends again

    TcpModel()
    {
        for (std::size_t at = 0; at < m_uploadSize;) {
            m_cuts.push_back(at);
            at += 1 + m_random.below(3000);
        }
        m_cuts.push_back(m_uploadSize);
    }

    // The application.

    bool hasAllAcknowledged() const { return m_acknowledged >= m_uploadSize + 2; }
    void applicationSends()
    {
        if (m_turn - m_lastProgress > patience) { // again from the first that was not acknowledged
            m_sending = m_firstUnacknowledged;
            m_lastProgress = m_turn;
        }
        for (std::uint32_t i = m_random.below(6); i > 0 && m_sending < m_cuts.size(); --i, ++m_sending) {
            const std::size_t at = m_cuts[m_sending];
            const bool isFin = at == m_uploadSize;
            m_sendNext = std::max(m_sendNext, (isFin ? at + 1 : m_cuts[m_sending + 1]) + 1);
            put(at + 1, isFin ? tcpFin | tcpAck : tcpPsh | tcpAck,
                isFin ? Bytes() : streamBytes(at, m_cuts[m_sending + 1] - at));
        }
    }
    void put(std::size_t seq, std::uint8_t flags, Bytes payload)
    {
        OnItsWay packet{
            {.seq = static_cast<std::uint32_t>(m_applicationStart + seq),
             .ack = m_engineStart + m_received,
             .flags = flags,
             .window = static_cast<std::uint16_t>(std::min(m_rightEdge - m_received, 0xffffU << m_shift) >> m_shift),
             .options = {},
             .payload = {}},
            std::move(payload)};
        if (!m_random.oneIn(30))
            m_way.push_back(packet);
        if (m_random.oneIn(20))
            m_way.push_back(std::move(packet));
        if (m_way.size() > 1 && m_random.oneIn(5))
            std::swap(m_way.back(), m_way[m_random.below(static_cast<std::uint32_t>(m_way.size()))]);
    }
    /// What RFC 9293 section 3.10.7.4 has a receiver do, as far as it is needed here.
    bool write(std::span<const std::uint8_t> bytes)
    {
        if (m_isAdapterFull)
            return false;
        const WrittenPacket packet = readWritten(bytes);
        const std::uint32_t seq = packet.seq - m_engineStart;
        if (packet.payload.empty() && packet.flags == tcpAck) {
            EXPECT_LE(seq, m_received);
            m_hasToAnswer = m_hasToAnswer || seq < m_received; // a probe
        } else {
            EXPECT_EQ(seq, m_received) << "a gap, or bytes that came twice";
            EXPECT_LE(m_received + packet.payload.size(), m_rightEdge) << "the window is not respected";
            EXPECT_FALSE(m_hasFin);
            m_downloaded.insert(m_downloaded.end(), packet.payload.begin(), packet.payload.end());
            m_received += static_cast<std::uint32_t>(packet.payload.size());
            m_received += packet.flags & (tcpSyn | tcpFin) ? 1 : 0;
            m_hasFin = m_hasFin || (packet.flags & tcpFin);
            m_hasToAnswer = true;
        }
        takeAcknowledgement(packet.ack - m_applicationStart);
        return true;
    }
    void takeAcknowledgement(std::uint32_t ack)
    {
        EXPECT_GE(ack, m_acknowledged);
        EXPECT_LE(ack, m_uploadSize + 2);
        if (ack > m_acknowledged)
            m_lastProgress = m_turn;
        m_acknowledged = ack;
        while (m_firstUnacknowledged < m_cuts.size() && m_cuts[m_firstUnacknowledged] + 1 < ack)
            ++m_firstUnacknowledged;
        m_sending = std::max(m_sending, m_firstUnacknowledged);
    }
    /// Its right edge never moves back (RFC 9293 section 3.8.6).
    void applicationReads()
    {
        if (m_random.oneIn(4)) {
            const std::uint32_t sizes[] = {0, 1, 100, 1459, 1460, 5000, 65535, 60000};
            const std::uint32_t wanted = m_random.oneIn(10) ? 1U << 20 : sizes[m_random.below(8)];
            m_rightEdge = std::max(m_rightEdge, m_received + wanted);
            m_hasToAnswer = true;
        }
        // What the last acknowledgement says is lost only together with the packet; a probe asks for it again.
        if (std::exchange(m_hasToAnswer, false))
            put(m_sendNext, tcpAck, {});
    }

    // The engine.

    void packetArrives()
    {
        if (m_way.empty())
            return;
        OnItsWay packet = std::move(m_way.front());
        m_way.pop_front();
        packet.segment.payload = packet.payload;
        m_stream.acknowledge(packet.segment);
        if (packet.segment.flags & tcpFin) {
            m_stream.finish(packet.segment);
        } else if (!packet.payload.empty()) {
            const auto received = m_stream.receive(packet.segment);
            if (received && received->verdict == TcpReceiver::Verdict::Queued)
                m_stream.sendAck();
        }
    }
    void upstreamReceives()
    {
        if (m_isSending) {
            if (m_random.oneIn(m_isUpstreamSlow ? 400 : 3))
                goOn();
            return;
        }
        const auto chunk = m_stream.beginUpload();
        if (!chunk)
            return;
        m_isSending = true;
        m_rest = chunk->bytes;
        if (chunk->drained > 0)
            m_stream.sendAck();
    }
    void goOn()
    {
        const std::size_t sent = 1 + m_random.below(static_cast<std::uint32_t>(m_rest.size()));
        m_uploaded.insert(m_uploaded.end(), m_rest.begin(), m_rest.begin() + static_cast<std::ptrdiff_t>(sent));
        m_rest = m_stream.advanceUpload(sent);
        m_isSending = !m_rest.empty();
    }
    void upstreamSends()
    {
        if (m_isPaused || m_sent == m_downloadSize || !m_random.oneIn(3))
            return;
        const std::size_t size = std::min<std::size_t>(1 + m_random.below(65536), m_downloadSize - m_sent);
        const TcpStream::Downloaded downloaded = m_stream.download(streamBytes(m_sent, size));
        ASSERT_TRUE(downloaded.isKept);
        m_isPaused = downloaded.isPaused;
        m_sent += size;
    }
    void flowControlRuns()
    {
        m_now += std::chrono::milliseconds(10);
        if (m_stream.drain(m_now).resumes)
            m_isPaused = false;
    }

    void turn()
    {
        ++m_turn;
        m_isAdapterFull = m_random.oneIn(4);
        if (m_random.oneIn(1000))
            m_isUpstreamSlow = !m_isUpstreamSlow;
        // The application closes only once it has all of the upstream's: the engine drops what would come behind.
        if (m_sending + 1 < m_cuts.size() || m_downloaded.size() == m_downloadSize)
            applicationSends();
        applicationReads();
        for (std::uint32_t i = m_random.below(8); i > 0; --i)
            packetArrives();
        upstreamReceives();
        upstreamSends();
        flowControlRuns();
    }

    Random m_random{GetParam()};
    const std::uint32_t m_applicationStart = GetParam() % 2 ? 0xfffffff0 - m_random.below(100'000) : 1000;
    const std::uint32_t m_engineStart = GetParam() % 3 ? 0xfffffff0 - m_random.below(100'000) : 1000;
    const std::uint8_t m_shift = static_cast<std::uint8_t>(GetParam() % 5 * 2);
    const std::size_t m_uploadSize = 200'000 + m_random.below(3'000'000);
    const std::size_t m_downloadSize = 200'000 + m_random.below(1'000'000);
    std::uint32_t m_turn = 0;
    SteadyTime m_now{std::chrono::hours(1)};

    /// Where the application cuts its stream; the last one is its FIN.
    std::vector<std::size_t> m_cuts;
    std::size_t m_sending = 0;
    std::size_t m_sendNext = 1; ///< relative
    std::size_t m_firstUnacknowledged = 0;
    std::uint32_t m_acknowledged = 0;
    std::uint32_t m_lastProgress = 0;
    /// Relative, like the edge.
    std::uint32_t m_received = 0;
    std::uint32_t m_rightEdge = 65536;
    bool m_hasToAnswer = false;
    bool m_hasFin = false;
    Bytes m_downloaded;
    std::deque<OnItsWay> m_way;

    bool m_isAdapterFull = false;
    bool m_isUpstreamSlow = false;
    bool m_isPaused = false;
    bool m_isSending = false;
    std::span<const std::uint8_t> m_rest;
    Bytes m_uploaded;
    std::size_t m_sent = 0;

    OutOfOrderBudget m_budget;
    TcpStream m_stream{
        {FlowKey{{toApplication.srcIp, toApplication.srcPort}, {toApplication.dstIp, toApplication.dstPort}},
         m_engineStart, m_applicationStart, 65535, m_shift},
        m_budget,
        [this](const std::uint8_t *packet, std::size_t size) {
            return write({packet, size});
        }};
};

TEST_P(TcpModel, everyByteArrivesOnceAndInOrder)
{
    m_stream.establish();
    constexpr std::uint32_t maxTurns = 400'000;
    while (m_turn < maxTurns && !(hasAllAcknowledged() && m_hasFin && m_stream.isUploadIdle())) {
        turn();
        if (HasFailure())
            break;
    }
    EXPECT_TRUE(hasAllAcknowledged()) << m_acknowledged << " of " << m_uploadSize << " after " << m_turn;
    EXPECT_TRUE(m_hasFin) << m_downloaded.size() << " of " << m_downloadSize << " after " << m_turn;
    EXPECT_EQ(m_uploaded.size(), m_uploadSize);
    EXPECT_TRUE(m_uploaded == streamBytes(0, m_uploadSize));
    EXPECT_EQ(m_downloaded.size(), m_downloadSize);
    EXPECT_TRUE(m_downloaded == streamBytes(0, m_downloadSize));
    EXPECT_EQ(m_budget.used(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Seeds, TcpModel, ::testing::Range(1U, 21U));

} // namespace
} // namespace ruvo::test
