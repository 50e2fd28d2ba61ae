// However a stream is cut into reads, the decoder gives the same payloads, those of a plain reading of the stream.
//
// Input: a byte with the number of cuts, a byte for the length of each piece (0: 256 bytes), then the stream.

#include "fuzz_check.h"
#include "ipc/frame.h"
#include "support/plain_frames.h"

#include <QList>

#include <algorithm>
#include <cstdint>
#include <span>

namespace {

using ruvo::FrameDecoder;

QByteArray copyOf(std::span<const std::uint8_t> bytes)
{
    return QByteArray(reinterpret_cast<const char *>(bytes.data()), static_cast<qsizetype>(bytes.size()));
}

void takeAll(FrameDecoder &decoder, QList<QByteArray> &payloads)
{
    while (const std::optional<QByteArray> payload = decoder.next())
        payloads.append(*payload);
}

QList<QByteArray> decodeAtOnce(std::span<const std::uint8_t> stream)
{
    FrameDecoder decoder;
    QList<QByteArray> payloads;
    decoder.append(copyOf(stream));
    takeAll(decoder, payloads);
    return payloads;
}

/// In pieces of these lengths, over and over.
QList<QByteArray> decodeInPieces(std::span<const std::uint8_t> stream, std::span<const std::uint8_t> lengths)
{
    FrameDecoder decoder;
    QList<QByteArray> payloads;
    for (std::size_t piece = 0; !stream.empty(); ++piece) {
        const std::size_t wanted = lengths.empty() ? 1 : lengths[piece % lengths.size()];
        const std::size_t length = std::min(wanted == 0 ? 256 : wanted, stream.size());
        decoder.append(copyOf(stream.first(length)));
        stream = stream.subspan(length);
        takeAll(decoder, payloads);
    }
    return payloads;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::span input(data, size);
    if (input.empty())
        return 0;
    const std::size_t cuts = std::min<std::size_t>(input[0], input.size() - 1);
    const auto lengths = input.subspan(1, cuts);
    const auto stream = input.subspan(1 + cuts);

    const QList<QByteArray> expected = ruvo::test::plainFrames(copyOf(stream));
    FUZZ_CHECK(decodeAtOnce(stream) == expected);
    FUZZ_CHECK(decodeInPieces(stream, lengths) == expected);

    for (const QByteArray &payload : expected) {
        FrameDecoder decoder;
        decoder.append(ruvo::encodeFrame(payload));
        FUZZ_CHECK(decoder.next() == payload);
        FUZZ_CHECK(!decoder.next());
    }
    return 0;
}
