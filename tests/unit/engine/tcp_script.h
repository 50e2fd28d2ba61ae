#pragma once

// Scripts of what happens to one connection: what the application sends, what the proxy and the upstream do, how much
// room the adapter has; and what the engine writes to the application, as lines like
//
//     "PSH|ACK seq 1 ack 101 len 1460"
//
// Sequence numbers are relative to the SYN's of their side, so that the first byte of either stream has number 1.

#include "engine/tcp_stream.h"
#include "unit/engine/tcp_packets.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace ruvo::test {

class TcpScript : public ::testing::Test
{
protected:
    using Lines = std::vector<std::string>;
    using Verdict = TcpReceiver::Verdict;

    /// The application's SYN.
    struct Syn
    {
        std::uint16_t window = 65535;
        std::uint8_t windowShift = 0;
        std::uint32_t seq = 1'000'000; ///< as it is, like the next
        std::uint32_t engineSeq = 5'000;
        bool isIpv6 = false;
    };
    void applicationOpens(const Syn &syn)
    {
        m_syn = syn;
        m_window = syn.window;
        TcpSender::Opening opening;
        if (!syn.isIpv6) {
            opening.path =
                FlowKey{{toApplication.srcIp, toApplication.srcPort}, {toApplication.dstIp, toApplication.dstPort}};
        }
        opening.initialSequence = syn.engineSeq;
        opening.synSequence = syn.seq;
        opening.window = syn.window;
        opening.windowShift = syn.windowShift;
        m_stream =
            std::make_unique<TcpStream>(opening, m_budget, [this](const std::uint8_t *packet, std::size_t size) {
                return write({packet, size});
            });
    }
    void applicationOpens() { applicationOpens({}); }

    bool proxyConnects() { return stream().establish(); }
    void proxyRefuses() { stream().refuse(); }

    /// As far as the application's acknowledgement of the SYN|ACK; nothing of it is left in `written`.
    void establish(const Syn &syn)
    {
        applicationOpens(syn);
        proxyConnects();
        applicationAcknowledges(1);
        written();
    }
    void establish() { establish(Syn{}); }

    // What the application sends.

    /// A segment of the application, its numbers relative.
    struct Segment
    {
        std::uint32_t seq = 0;
        std::uint32_t ack = 1;
        std::uint8_t flags = tcpAck;
        int window = -1; ///< -1: as it last was
    };
    TcpSegment numbered(const Segment &segment, const Bytes &payload)
    {
        if (segment.window >= 0)
            m_window = static_cast<std::uint16_t>(segment.window);
        return {
            .seq = m_syn.seq + segment.seq,
            .ack = m_syn.engineSeq + segment.ack,
            .flags = segment.flags,
            .window = m_window,
            .options = {},
            .payload = payload,
        };
    }

    /// `size` bytes of the application's stream. What is in order goes upstream and is acknowledged.
    Verdict applicationSends(std::uint32_t seq, std::size_t size)
    {
        const Bytes payload = streamBytes(seq - 1, size);
        return applicationSends(numbered({.seq = seq, .ack = m_acknowledged, .flags = tcpPsh | tcpAck}, payload));
    }
    Verdict applicationSends(const TcpSegment &segment)
    {
        stream().acknowledge(segment);
        const std::optional<TcpStream::Received> received = stream().receive(segment);
        if (!received)
            return Verdict::Dropped;
        if (received->verdict == Verdict::Queued) {
            offerUpload();
            stream().sendAck();
        }
        return received->verdict;
    }
    bool applicationFinishes(std::uint32_t seq, std::size_t size = 0)
    {
        const Bytes payload = streamBytes(seq - 1, size);
        const TcpSegment segment = numbered({.seq = seq, .ack = m_acknowledged, .flags = tcpFin | tcpAck}, payload);
        stream().acknowledge(segment);
        const bool isTaken = stream().finish(segment);
        offerUpload();
        return isTaken;
    }
    /// A pure ACK.
    TcpSender::Acknowledged applicationAcknowledges(const Segment &segment)
    {
        m_acknowledged = segment.ack;
        return stream().acknowledge(numbered(segment, {}));
    }
    TcpSender::Acknowledged applicationAcknowledges(std::uint32_t ack)
    {
        return applicationAcknowledges({.seq = 1, .ack = ack});
    }
    TcpSender::Acknowledged applicationAcknowledges(std::uint32_t ack, std::uint16_t window)
    {
        return applicationAcknowledges({.seq = 1, .ack = ack, .window = window});
    }

    // What the upstream does.

    /// Takes one chunk, and no more until it goes on.
    void upstreamStalls() { m_isUpstreamStalled = true; }
    /// The chunk on its way goes out, and nothing behind it.
    void upstreamTakesOneChunk()
    {
        stream().advanceUpload(m_chunk);
        m_chunk = 0;
        offerUpload();
    }
    void upstreamGoesOn()
    {
        m_isUpstreamStalled = false;
        upstreamTakesOneChunk();
    }
    /// All that has gone upstream until now.
    const Bytes &uploaded() const { return m_uploaded; }

    TcpStream::Downloaded upstreamSends(std::size_t size)
    {
        const Bytes bytes = streamBytes(m_sent, size);
        m_sent += size;
        return stream().download(bytes);
    }
    bool upstreamCloses() { return stream().finishDownload(); }

    // The adapter, the clock, the flow-control thread.

    void adapterIsFull() { m_room = 0; }
    void adapterHasRoomFor(std::size_t packets) { m_room = packets; }
    void adapterHasRoom() { m_room = std::numeric_limits<std::size_t>::max(); }
    void timePasses(std::chrono::milliseconds time) { m_now += time; }
    TcpSender::Drained flowControlRuns() { return stream().drain(m_now); }

    /// What was written since the last call.
    Lines written()
    {
        Lines lines;
        for (const WrittenPacket &packet : std::exchange(m_written, {})) {
            lines.push_back(flagNames(packet.flags) + " seq " + std::to_string(packet.seq - m_syn.engineSeq) + " ack "
                            + std::to_string(packet.ack - m_syn.seq));
            if (!packet.payload.empty())
                lines.back() += " len " + std::to_string(packet.payload.size());
        }
        return lines;
    }
    const std::vector<WrittenPacket> &writtenPackets() const { return m_written; }
    /// All that was written of the upstream's stream until now: each piece was behind the last.
    const Bytes &downloaded() const { return m_downloaded; }

    TcpStream &stream() { return *m_stream; }

    OutOfOrderBudget m_budget;

private:
    bool write(std::span<const std::uint8_t> bytes)
    {
        if (m_room == 0)
            return false;
        if (m_room != std::numeric_limits<std::size_t>::max())
            --m_room;
        m_written.push_back(readWritten(bytes));
        const WrittenPacket &packet = m_written.back();
        if (!packet.payload.empty()) {
            EXPECT_EQ(packet.seq - m_syn.engineSeq, static_cast<std::uint32_t>(m_downloaded.size() + 1));
            m_downloaded.insert(m_downloaded.end(), packet.payload.begin(), packet.payload.end());
        }
        return true;
    }
    void offerUpload()
    {
        while (const std::optional<TcpStream::Chunk> chunk = stream().beginUpload()) {
            m_uploaded.insert(m_uploaded.end(), chunk->bytes.begin(), chunk->bytes.end());
            m_chunk = chunk->bytes.size();
            if (chunk->drained > 0)
                stream().sendAck();
            if (m_isUpstreamStalled)
                return;
            stream().advanceUpload(std::exchange(m_chunk, 0));
        }
    }

    Syn m_syn;
    std::uint16_t m_window = 0;
    std::uint32_t m_acknowledged = 1;
    SteadyTime m_now{std::chrono::hours(1)};
    std::size_t m_room = std::numeric_limits<std::size_t>::max();
    std::vector<WrittenPacket> m_written;
    Bytes m_downloaded;
    Bytes m_uploaded;
    std::size_t m_sent = 0;
    std::size_t m_chunk = 0;
    bool m_isUpstreamStalled = false;
    std::unique_ptr<TcpStream> m_stream;
};

} // namespace ruvo::test
