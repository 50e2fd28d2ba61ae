#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QList>

#include <cstdint>

namespace ruvo::test {

/// The whole payloads of a stream of frames, cut in the plainest way: what the product's decoder is compared with.
inline QList<QByteArray> plainFrames(QByteArrayView stream)
{
    QList<QByteArray> payloads;
    std::uint64_t position = 0;
    const auto size = static_cast<std::uint64_t>(stream.size());
    while (size - position >= 4) {
        std::uint64_t length = 0;
        for (std::uint64_t i = 0; i < 4; ++i)
            length = length * 256 + static_cast<unsigned char>(stream[static_cast<qsizetype>(position + i)]);
        if (size - position - 4 < length)
            break;
        payloads.append(
            stream.sliced(static_cast<qsizetype>(position + 4), static_cast<qsizetype>(length)).toByteArray());
        position += 4 + length;
    }
    return payloads;
}

} // namespace ruvo::test
