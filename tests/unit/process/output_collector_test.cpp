#include "process/output_collector.h"

#include <gtest/gtest.h>

#include <QStringList>

namespace ruvo {
namespace {

/// "<process> <event>: <data>" for each event.
QStringList texts(const QList<QJsonObject> &events)
{
    QStringList texts;
    for (const QJsonObject &event : events) {
        EXPECT_EQ(event.keys(), QStringList({"data", "event", "process-id", "timestamp"}));
        texts.append(event["process-id"].toString() + u' ' + event["event"].toString() + ": "
                     + event["data"].toString());
    }
    return texts;
}

TEST(OutputCollector, hasNothingToTellAtFirst)
{
    OutputCollector output;
    EXPECT_TRUE(output.flush().isEmpty());
    EXPECT_TRUE(output.take("core").isEmpty());
}

TEST(OutputCollector, joinsWhatCameSinceTheLastFlush)
{
    OutputCollector output;
    output.appendStdout("core", "one ");
    output.appendStdout("core", "two");
    EXPECT_EQ(texts(output.flush()), QStringList({"core stdout: one two"}));
    EXPECT_TRUE(output.flush().isEmpty());
    output.appendStdout("core", "three");
    EXPECT_EQ(texts(output.flush()), QStringList({"core stdout: three"}));
}

TEST(OutputCollector, tellsStandardOutputBeforeStandardErrorWhateverCameFirst)
{
    OutputCollector output;
    output.appendStderr("core", "error");
    output.appendStdout("core", "output");
    EXPECT_EQ(texts(output.flush()), QStringList({"core stdout: output", "core stderr: error"}));
    output.appendStderr("core", "last error");
    output.appendStdout("core", "last output");
    EXPECT_EQ(texts(output.take("core")), QStringList({"core stdout: last output", "core stderr: last error"}));
}

TEST(OutputCollector, makesNoEventOfAStreamWithoutOutput)
{
    OutputCollector output;
    output.appendStderr("core", "only an error");
    output.appendStdout("core", "");
    EXPECT_EQ(texts(output.flush()), QStringList({"core stderr: only an error"}));
}

TEST(OutputCollector, keepsTheOutputOfProcessesApart)
{
    OutputCollector output;
    output.appendStdout("a", "of a");
    output.appendStdout("b", "of b");
    output.appendStdout("A", "of A");
    QStringList events = texts(output.flush());
    events.sort();
    EXPECT_EQ(events, QStringList({"A stdout: of A", "a stdout: of a", "b stdout: of b"}));
}

TEST(OutputCollector, leavesAnEntryAfterAFlushAndRemovesItWithTheLastEvents)
{
    OutputCollector output;
    EXPECT_FALSE(output.contains("core"));
    output.appendStdout("core", "text");
    output.flush();
    EXPECT_TRUE(output.contains("core"));
    EXPECT_TRUE(output.take("core").isEmpty());
    EXPECT_FALSE(output.contains("core"));
}

TEST(OutputCollector, takesOnlyTheOutputOfTheProcessThatIsAskedFor)
{
    OutputCollector output;
    output.appendStdout("a", "of a");
    output.appendStdout("b", "of b");
    EXPECT_EQ(texts(output.take("a")), QStringList({"a stdout: of a"}));
    EXPECT_TRUE(output.take("a").isEmpty());
    EXPECT_EQ(texts(output.flush()), QStringList({"b stdout: of b"}));
}

TEST(OutputCollector, dropsWhatWaitsForARemovedProcess)
{
    OutputCollector output;
    output.appendStdout("core", "of the earlier one");
    output.remove("core");
    EXPECT_FALSE(output.contains("core"));
    output.appendStdout("core", "of the new one");
    EXPECT_EQ(texts(output.flush()), QStringList({"core stdout: of the new one"}));
}

TEST(OutputCollector, decodesUtf8)
{
    OutputCollector output;
    output.appendStdout("core", "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80");
    EXPECT_EQ(texts(output.flush()), QStringList({QString::fromUtf8("core stdout: é€😀")}));
}

TEST(OutputCollector, joinsACharacterThatCameInTwoChunksOfOneFlush)
{
    OutputCollector output;
    output.appendStdout("core", "\xe2\x82");
    output.appendStdout("core", "\xac");
    EXPECT_EQ(texts(output.flush()), QStringList({QString::fromUtf8("core stdout: €")}));
}

TEST(OutputCollector, decodesTheHalvesOfACharacterThatAFlushCutEachOnItsOwn)
{
    OutputCollector output;
    output.appendStdout("core", "ab\xe2\x82");
    const QString before = output.flush().first()["data"].toString();
    output.appendStdout("core", "\xac"
                                "cd");
    const QString after = output.flush().first()["data"].toString();
    EXPECT_TRUE(before.startsWith("ab")) << before.toStdString();
    EXPECT_TRUE(before.mid(2).contains(QChar::ReplacementCharacter)) << before.toStdString();
    EXPECT_EQ(QString(before).remove(QChar::ReplacementCharacter), "ab");
    EXPECT_EQ(after, QString(QChar::ReplacementCharacter) + "cd");
}

TEST(OutputCollector, keepsNulCharactersAndLineEndsAsTheyCame)
{
    OutputCollector output;
    output.appendStdout("core", QByteArray("a\0b\r\n", 5));
    EXPECT_EQ(output.flush().first()["data"].toString(), QString::fromUtf8("a\0b\r\n", 5));
}

} // namespace
} // namespace ruvo
