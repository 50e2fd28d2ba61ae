#include "ruvoctl/input_lines.h"

#include <QList>

#include <gtest/gtest.h>

namespace ruvo {
namespace {

TEST(InputLines, cutsLinesWhateverThePieces)
{
    const QByteArray text = "one\r\n\ntwo \xC3\xA9\nlast";
    for (qsizetype piece = 1; piece <= text.size(); ++piece) {
        InputLines lines;
        QList<QByteArray> cut;
        for (qsizetype at = 0; at < text.size(); at += piece) {
            lines.append(text.mid(at, piece));
            while (const std::optional<QByteArray> line = lines.next())
                cut.append(*line);
        }
        EXPECT_EQ(cut, (QList<QByteArray>{"one", "", "two \xC3\xA9"})) << "in pieces of " << piece;
        EXPECT_EQ(lines.lineNumber(), 3);
        EXPECT_EQ(lines.rest(), QByteArray("last"));
        EXPECT_EQ(lines.lineNumber(), 4);
        EXPECT_EQ(lines.rest(), std::nullopt);
    }
}

TEST(InputLines, hasNoRestAfterALineEnd)
{
    InputLines lines;
    lines.append("one\n");
    EXPECT_EQ(lines.next(), QByteArray("one"));
    EXPECT_EQ(lines.rest(), std::nullopt);
}

TEST(InputLines, dropsAByteOrderMarkAtTheStartOnly)
{
    InputLines lines;
    lines.append("\xEF\xBB\xBF{}\n\xEF\xBB\xBF{}\n");
    EXPECT_EQ(lines.next(), QByteArray("{}"));
    EXPECT_EQ(lines.next(), QByteArray("\xEF\xBB\xBF{}"));
}

TEST(InputLines, keepsALineOfMegabytesAndBinaryBytes)
{
    InputLines lines;
    const QByteArray piece = QByteArray(64 * 1024 - 1, 'x') + '\0';
    for (int i = 0; i < 128; ++i) {
        lines.append(piece);
        ASSERT_EQ(lines.next(), std::nullopt);
    }
    lines.append("\n");
    EXPECT_EQ(lines.next(), piece.repeated(128));
}

} // namespace
} // namespace ruvo
