// Several threads at one connection, as the tunnel has them: the reader with the application's segments, a worker
// with the upstream's bytes, a worker that sends upstream, the flow-control thread. For ThreadSanitizer, and for the
// bytes.

#include "engine/tcp_stream.h"

#include "unit/engine/tcp_packets.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <random>
#include <span>
#include <thread>
#include <utility>
#include <vector>

namespace ruvo::test {
namespace {

constexpr std::uint32_t applicationStart = 0xfff00000; // both wrap on their way
constexpr std::uint32_t engineStart = 0xffff0000;
constexpr std::size_t uploadSize = 8 * 1024 * 1024;
constexpr std::size_t downloadSize = 4 * 1024 * 1024;

/// The adapter, and behind it the application as far as it receives: acknowledges all that comes. Called under the
/// stream's mutex, by one thread at a time.
class Adapter
{
public:
    bool write(std::span<const std::uint8_t> bytes)
    {
        const std::lock_guard lock(m_mutex);
        if (m_random() % 8 == 0)
            return false;
        const WrittenPacket packet = readWritten(bytes);
        if (packet.flags & tcpRst)
            return true;
        const auto ack = packet.ack - applicationStart;
        EXPECT_GE(ack, m_ack.load()) << "an acknowledgement was taken back";
        m_ack = ack;
        if (packet.payload.empty() && packet.flags == tcpAck)
            return true; // bare acknowledgements and probes have no number of their own
        EXPECT_EQ(packet.seq, engineStart + m_next.load());
        m_next += static_cast<std::uint32_t>(packet.payload.size()) + ((packet.flags & (tcpSyn | tcpFin)) ? 1 : 0);
        m_bytes.insert(m_bytes.end(), packet.payload.begin(), packet.payload.end());
        m_isFinished = m_isFinished || (packet.flags & tcpFin);
        return true;
    }
    /// Relative.
    std::uint32_t acknowledged() const { return m_ack; }
    std::uint32_t next() const { return m_next; }
    bool isFinished() const { return m_isFinished; }
    const Bytes &bytes() const { return m_bytes; }

private:
    std::mutex m_mutex;
    std::mt19937 m_random{1};
    std::atomic<std::uint32_t> m_ack = 0;
    std::atomic<std::uint32_t> m_next = 0;
    std::atomic<bool> m_isFinished = false;
    Bytes m_bytes;
};

class TcpStreamThreads : public ::testing::Test
{
protected:
    TcpSegment numbered(std::size_t position, std::uint8_t flags, const Bytes &payload) const
    {
        return {
            .seq = static_cast<std::uint32_t>(applicationStart + 1 + position),
            .ack = engineStart + m_adapter.next(),
            .flags = flags,
            .window = 0xffff,
            .options = {},
            .payload = payload,
        };
    }

    /// The application: two segments in a row change places now and then, some come twice, and what was not
    /// acknowledged is sent again.
    void applicationSends()
    {
        std::mt19937 random(2);
        constexpr std::size_t size = 1000;
        const auto send = [&](std::size_t position) {
            if (position >= uploadSize)
                return;
            const Bytes payload = streamBytes(position, std::min(size, uploadSize - position));
            const TcpSegment segment = numbered(position, tcpAck, payload);
            m_stream.acknowledge(segment);
            const auto received = m_stream.receive(segment);
            if (received && received->verdict == TcpReceiver::Verdict::Queued)
                m_stream.sendAck();
        };
        while (true) {
            const std::uint32_t acknowledged = m_adapter.acknowledged();
            const std::size_t position = acknowledged == 0 ? 0 : acknowledged - 1;
            if (position >= uploadSize)
                break;
            for (std::size_t i = position; i < position + 32 * size; i += 2 * size) {
                const bool isSwapped = random() % 4 == 0;
                send(isSwapped ? i + size : i);
                send(isSwapped ? i : i + size);
                if (random() % 8 == 0)
                    send(i);
            }
        }
        m_hasSentAll = true;
    }
    /// Only acknowledges, as long as something comes.
    void applicationReceives()
    {
        while (!m_adapter.isFinished()) {
            m_stream.acknowledge(numbered(0, tcpAck, {}));
            std::this_thread::yield();
        }
    }
    void workerDownloads()
    {
        std::mt19937 random(3);
        for (std::size_t position = 0; position < downloadSize;) {
            const std::size_t size = std::min<std::size_t>(1 + random() % 20'000, downloadSize - position);
            const TcpStream::Downloaded downloaded = m_stream.download(streamBytes(position, size));
            ASSERT_TRUE(downloaded.isKept);
            position += size;
            if (downloaded.isPaused) {
                m_resumed.wait(false);
                m_resumed = false;
            }
        }
        m_hasDownloadedAll = true;
    }
    void workerUploads()
    {
        std::mt19937 random(4);
        while (!m_hasSentAll || !m_stream.isUploadIdle()) {
            const auto chunk = m_stream.beginUpload();
            if (!chunk) {
                std::this_thread::yield();
                continue;
            }
            if (chunk->drained > 0)
                m_stream.sendAck();
            std::span<const std::uint8_t> rest = chunk->bytes;
            while (!rest.empty()) {
                const std::size_t sent = 1 + random() % rest.size();
                m_uploaded.insert(m_uploaded.end(), rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(sent));
                rest = m_stream.advanceUpload(sent);
            }
        }
    }
    void flowControlRuns()
    {
        while (!m_adapter.isFinished()) {
            if (m_stream.drain(steadyNow()).resumes) {
                m_resumed = true;
                m_resumed.notify_all();
            }
            std::this_thread::yield();
        }
    }

    OutOfOrderBudget m_budget;
    Adapter m_adapter;
    TcpStream m_stream{
        {FlowKey{{toApplication.srcIp, toApplication.srcPort}, {toApplication.dstIp, toApplication.dstPort}},
         engineStart, applicationStart, 65535, 8},
        m_budget,
        [this](const std::uint8_t *packet, std::size_t size) {
            return m_adapter.write({packet, size});
        }};
    Bytes m_uploaded;
    std::atomic<bool> m_hasSentAll = false;
    std::atomic<bool> m_hasDownloadedAll = false;
    std::atomic<bool> m_resumed = false;
};

TEST_F(TcpStreamThreads, bothDirectionsKeepTheirBytes)
{
    m_stream.establish();
    {
        std::jthread flowControl([this] { flowControlRuns(); });
        std::jthread receiving([this] { applicationReceives(); });
        std::jthread downloading([this] { workerDownloads(); });
        std::jthread uploading([this] { workerUploads(); });
        applicationSends();
        downloading.join();
        uploading.join();
        EXPECT_TRUE(m_stream.finish(numbered(uploadSize, tcpFin | tcpAck, {})));
    }
    EXPECT_TRUE(m_hasDownloadedAll);
    EXPECT_EQ(m_uploaded.size(), uploadSize);
    EXPECT_TRUE(m_uploaded == streamBytes(0, uploadSize));
    EXPECT_EQ(m_adapter.bytes().size(), downloadSize);
    EXPECT_TRUE(m_adapter.bytes() == streamBytes(0, downloadSize));
    EXPECT_EQ(m_adapter.acknowledged(), uploadSize + 2);
    EXPECT_EQ(m_stream.waitingPackets(), 0U);
    EXPECT_EQ(m_budget.used(), 0U);
}

// Both ends close in the midst of it: exactly one FIN is written, and no number behind it.
TEST_F(TcpStreamThreads, oneFinWhoeverClosesFirst)
{
    for (int round = 0; round < 200; ++round) {
        std::uint32_t fins = 0;
        std::mutex mutex;
        TcpStream stream(
            {FlowKey{{toApplication.srcIp, toApplication.srcPort}, {toApplication.dstIp, toApplication.dstPort}},
             engineStart, applicationStart, 65535, 8},
            m_budget, [&](const std::uint8_t *bytes, std::size_t size) {
                const std::lock_guard lock(mutex);
                const WrittenPacket packet = readWritten({bytes, size});
                EXPECT_TRUE(fins == 0 || packet.flags == tcpAck);
                fins += packet.flags & tcpFin;
                return true;
            });
        stream.establish();
        stream.acknowledge(numbered(0, tcpAck, {}));
        {
            std::atomic<int> ready = 0;
            const auto together = [&ready] {
                for (++ready; ready < 3;)
                    std::this_thread::yield();
            };
            std::jthread closing([&] {
                together();
                stream.finishDownload();
            });
            std::jthread downloading([&] {
                together();
                stream.download(streamBytes(0, 3000));
            });
            together();
            stream.finish(numbered(0, tcpFin | tcpAck, {}));
        }
        EXPECT_EQ(fins, 1U);
        EXPECT_EQ(stream.waitingPackets(), 0U);
    }
}

// RFC 9293 section 3.10.7.4: its numbers count all the same, once the chunk has been written.
TEST(TcpStreamLock, acknowledgementDoesNotWaitForAChunkThatIsBeingWritten)
{
    OutOfOrderBudget budget;
    std::function<void()> whileWriting;
    TcpSender::Opening opening;
    opening.path = FlowKey{{0x5DB8D822, 443}, {0x0A090909, 5000}};
    opening.initialSequence = engineStart;
    opening.synSequence = applicationStart;
    opening.window = 1000;
    unsigned written = 0;
    TcpStream stream(opening, budget, [&](const std::uint8_t *, std::size_t) {
        ++written;
        if (whileWriting)
            std::exchange(whileWriting, nullptr)();
        return true;
    });
    ASSERT_TRUE(stream.establish());
    whileWriting = [&] {
        // The lock is held here, so this would never come back if it waited for it.
        std::thread reader([&] {
            TcpSegment segment;
            segment.seq = applicationStart + 1;
            segment.ack = engineStart + 1;
            segment.flags = tcpAck;
            segment.window = 5000;
            stream.acknowledge(segment);
        });
        reader.join();
    };
    const Bytes bytes(1000);
    stream.download(bytes); // fills the first window
    stream.download(bytes);
    EXPECT_EQ(stream.waitingPackets(), 0u);
    EXPECT_EQ(written, 3u);
}

} // namespace
} // namespace ruvo::test
