#include "ipc/frame.h"

#include <gtest/gtest.h>

namespace ruvo {
namespace {

TEST(FrameDecoder, deliversAPayloadThatComesOneByteAtATime)
{
    FrameDecoder decoder;
    const QByteArray frame = encodeFrame("hello");
    for (qsizetype i = 0; i + 1 < frame.size(); ++i) {
        decoder.append(frame.mid(i, 1));
        EXPECT_EQ(decoder.next(), std::nullopt) << "after byte " << i;
    }
    decoder.append(frame.last(1));
    EXPECT_EQ(decoder.next(), QByteArray("hello"));
    EXPECT_EQ(decoder.next(), std::nullopt);
}

} // namespace
} // namespace ruvo
