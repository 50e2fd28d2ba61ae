#include "ipc/frame.h"

#include "support/plain_frames.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QList>

namespace ruvo {
namespace {

QList<QByteArray> takeAll(FrameDecoder &decoder)
{
    QList<QByteArray> payloads;
    while (const std::optional<QByteArray> payload = decoder.next())
        payloads.append(*payload);
    return payloads;
}

/// Milliseconds that a buffer full of `count` small frames, appended at once, takes to be cut.
qint64 timeToCut(int count)
{
    const QByteArray stream = encodeFrame("{}").repeated(count);
    FrameDecoder decoder;
    QElapsedTimer timer;
    timer.start();
    decoder.append(stream);
    int taken = 0;
    while (decoder.next())
        ++taken;
    EXPECT_EQ(taken, count);
    return timer.elapsed();
}

TEST(EncodeFrame, putsTheLengthInBigEndianBeforeThePayload)
{
    EXPECT_EQ(encodeFrame("{}"), QByteArray("\0\0\0\2{}", 6));
    EXPECT_EQ(encodeFrame(QByteArray(0x010203, 'x')).first(5), QByteArray("\0\1\2\3x", 5));
}

TEST(EncodeFrame, makesFourZeroBytesOfAnEmptyPayload)
{
    EXPECT_EQ(encodeFrame(""), QByteArray(4, '\0'));
}

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

TEST(FrameDecoder, deliversTwoFramesOfOneReadInOrder)
{
    FrameDecoder decoder;
    decoder.append(encodeFrame("first") + encodeFrame("second"));
    EXPECT_EQ(takeAll(decoder), (QList<QByteArray>{"first", "second"}));
}

TEST(FrameDecoder, keepsThePartOfAFrameThatFollowsAWholeOne)
{
    FrameDecoder decoder;
    decoder.append(encodeFrame("first") + encodeFrame("second").first(7));
    EXPECT_EQ(takeAll(decoder), QList<QByteArray>{"first"});
    decoder.append("ond");
    EXPECT_EQ(takeAll(decoder), QList<QByteArray>{"second"});
}

TEST(FrameDecoder, deliversAZeroLengthFrameAsAnEmptyPayload)
{
    FrameDecoder decoder;
    decoder.append(encodeFrame("") + encodeFrame("behind"));
    const QList<QByteArray> payloads = takeAll(decoder);
    ASSERT_EQ(payloads.size(), 2);
    EXPECT_TRUE(payloads[0].isEmpty());
    EXPECT_EQ(payloads[1], "behind");
}

TEST(FrameDecoder, readsTheLengthAsUnsigned)
{
    FrameDecoder decoder;
    decoder.append(QByteArray("\0\0\0\xff", 4) + QByteArray(254, 'x'));
    EXPECT_EQ(decoder.next(), std::nullopt);
    decoder.append("x");
    EXPECT_EQ(decoder.next(), QByteArray(255, 'x'));
}

class FrameDecoderLength : public ::testing::TestWithParam<const char *>
{};

TEST_P(FrameDecoderLength, thatNeverArrivesHoldsBackEverythingBehindIt)
{
    FrameDecoder decoder;
    decoder.append(QByteArray::fromHex(GetParam()));
    EXPECT_EQ(decoder.next(), std::nullopt);
    for (int i = 0; i < 1000; ++i) {
        decoder.append(encodeFrame("{}"));
        ASSERT_EQ(decoder.next(), std::nullopt);
    }
    EXPECT_LT(decoder.capacity(), 64 * 1024) << "what came, not what was claimed";
}

INSTANTIATE_TEST_SUITE_P(Hostile, FrameDecoderLength,
                         ::testing::Values("7fffffff", "80000000", "80000001", "fffffffb", "fffffffc", "fffffffd",
                                           "ffffffff"));

TEST(FrameDecoder, mayBeAskedAgainWhileAPayloadIsHandled)
{
    FrameDecoder decoder;
    decoder.append(encodeFrame("outer") + encodeFrame("inner"));
    const std::optional<QByteArray> outer = decoder.next();
    decoder.append(encodeFrame("late"));
    EXPECT_EQ(decoder.next(), QByteArray("inner"));
    EXPECT_EQ(outer, QByteArray("outer"));
    EXPECT_EQ(decoder.next(), QByteArray("late"));
}

TEST(FrameDecoder, leavesThePayloadsOfEarlierFramesAsTheyWere)
{
    FrameDecoder decoder;
    decoder.append(encodeFrame("kept") + encodeFrame("next"));
    const QByteArray kept = *decoder.next();
    decoder.append(QByteArray(100000, 'z'));
    EXPECT_EQ(decoder.next(), QByteArray("next"));
    EXPECT_EQ(kept, "kept");
}

TEST(FrameDecoder, cutsManySmallFramesInTimeThatGrowsWithTheirNumberOnly)
{
    constexpr int few = 40000;
    constexpr int factor = 16;
    // With one copy of the buffer for each frame, 16 times as many would take 256 times as long.
    const qint64 timeForFew = std::max<qint64>(timeToCut(few), 10);
    EXPECT_LT(timeToCut(few * factor), timeForFew * factor * 5);
}

TEST(FrameDecoder, deliversALargeFrameWholeAndGoesOn)
{
    FrameDecoder decoder;
    const QByteArray large(20 * 1024 * 1024, 'L');
    const QByteArray stream = encodeFrame(large) + encodeFrame("after");
    constexpr qsizetype chunk = 64 * 1024;
    QList<QByteArray> payloads;
    for (qsizetype i = 0; i < stream.size(); i += chunk) {
        decoder.append(stream.mid(i, chunk));
        payloads += takeAll(decoder);
    }
    ASSERT_EQ(payloads.size(), 2);
    EXPECT_TRUE(payloads[0] == large);
    EXPECT_EQ(payloads[1], "after");
}

TEST(FrameDecoder, givesTheMemoryOfALargeFrameBack)
{
    FrameDecoder decoder;
    decoder.append(encodeFrame(QByteArray(8 * 1024 * 1024, 'L')));
    EXPECT_GT(decoder.capacity(), 8 * 1024 * 1024);
    ASSERT_TRUE(decoder.next());
    EXPECT_LE(decoder.capacity(), 64 * 1024);
}

// A client that always has the start of its next message on the way must not keep the memory of its largest one.
TEST(FrameDecoder, givesTheMemoryOfALargeFrameBackThatAPartialOneFollows)
{
    FrameDecoder decoder;
    decoder.append(encodeFrame(QByteArray(8 * 1024 * 1024, 'L')) + encodeFrame("partial").first(6));
    ASSERT_TRUE(decoder.next());
    EXPECT_LE(decoder.capacity(), 64 * 1024);
    decoder.append("rtial");
    EXPECT_EQ(decoder.next(), QByteArray("partial"));
}

TEST(FrameDecoder, agreesWithAPlainReadingHoweverTheStreamIsCut)
{
    QByteArray stream;
    for (int size : {0, 1, 3, 4, 5, 255, 256, 1000})
        stream += encodeFrame(QByteArray(size, static_cast<char>('a' + size % 26)));
    stream += encodeFrame("cut off").chopped(2);
    const QList<QByteArray> expected = test::plainFrames(stream);
    ASSERT_EQ(expected.size(), 8);
    for (qsizetype chunk = 1; chunk <= stream.size(); ++chunk) {
        FrameDecoder decoder;
        QList<QByteArray> payloads;
        for (qsizetype i = 0; i < stream.size(); i += chunk) {
            decoder.append(stream.mid(i, chunk));
            payloads += takeAll(decoder);
        }
        ASSERT_EQ(payloads, expected) << "in chunks of " << chunk;
    }
}

} // namespace
} // namespace ruvo
