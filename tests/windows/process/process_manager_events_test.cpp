#include "windows/process/process_manager_fixture.h"

#include "process/managed_process.h"
#include "windows/process/volume.h"

#include <QElapsedTimer>

#include <algorithm>
#include <cstdio>

namespace ruvo {
namespace {

using ProcessManagerEvents = ProcessManagerTest;

/// What a child writes that writes as fast as it can: a hundred times what is read of it.
const QString bytesPerSecond = "10000000";

/// How long a flood lasts, in milliseconds.
QString floodTime()
{
    return QString::number(test::volume(10000, 2000));
}

QString lines(int count)
{
    QString text;
    for (int i = 0; i < count; ++i)
        text += QString("%1\n").arg(i, 12, 10, QChar('0'));
    return text;
}

/// The numbers of the lines of testchild's --utf8 that stand in `data` whole; its first and last are cut.
QList<qint64> wholeNumbers(const QString &data)
{
    QList<qint64> numbers;
    const QStringList texts = data.split('\n').sliced(1);
    for (const QString &text : texts.first(texts.size() - 1)) {
        qint64 number = 0;
        for (const QChar digit : text.first(12))
            number = number * 10 + digit.digitValue();
        EXPECT_EQ(text.sliced(12), QString::fromUtf8("\xc3\xa9\xf0\x9f\x98\x80")) << text.toStdString();
        numbers.append(number);
    }
    return numbers;
}

TEST_F(ProcessManagerEvents, tellOfOutputAndErrorsAndTheEnd)
{
    start("child", {"--print", "output", "--sleep", "300", "--error", "errors", "--sleep", "1000", "--exit", "7"});
    ASSERT_TRUE(waitFor("child", "finished: 7"));
    EXPECT_EQ(eventsOf("child"), QStringList({"started", "stdout: output\n", "stderr: errors\n", "finished: 7"}));
    EXPECT_EQ(withoutTimestamp(events[1]),
              (QJsonObject{{"process-id", "child"}, {"event", "stdout"}, {"data", "output\n"}}));
    EXPECT_EQ(withoutTimestamp(events[2]),
              (QJsonObject{{"process-id", "child"}, {"event", "stderr"}, {"data", "errors\n"}}));
    EXPECT_EQ(withoutTimestamp(events[3]),
              (QJsonObject{{"process-id", "child"}, {"event", "finished"}, {"data", "7"}}));
}

TEST_F(ProcessManagerEvents, areLoggedWhereTheEntryGoes)
{
    start("child", {"--exit", "7"});
    ASSERT_TRUE(waitFor("child", "finished: 7"));
    EXPECT_EQ(log.linesWith("onProcessFinished"),
              QStringList({
                  R"(DEBUG [ProcessManager::onProcessFinished] Process "child" finished with exit code 7 - removing )"
                  "from m_processes (current size: 1 )",
                  R"(DEBUG [ProcessManager::onProcessFinished] Process "child" removed from hash (new size: 0 ))",
              }));
}

TEST_F(ProcessManagerEvents, tellWhatWasNotYetFlushedBeforeTheEnd)
{
    runUnflushed("child", {"--print", "a", "--error", "b", "--wait"}, 4);
    EXPECT_EQ(eventsOf("child"), QStringList({"started", "stdout: a\n", "stderr: b\n", "finished: 5"}));
}

TEST_F(ProcessManagerEvents, ofTheEndComeWhileTheEntryIsStillThere)
{
    qsizetype atTheEnd = -1;
    QObject::connect(manager.get(), &ProcessManager::processEvent, [&](const QJsonObject &event) {
        if (event["event"] == "finished")
            atTheEnd = registered();
    });
    start("child", {"--exit", "0"});
    ASSERT_TRUE(waitFor("child", "finished: 0"));
    EXPECT_EQ(atTheEnd, 1);
    EXPECT_EQ(registered(), 0);
}

TEST_F(ProcessManagerEvents, tellNothingOfAStreamThatIsSilent)
{
    start("child", {"--print", "output", "--sleep", "1000"});
    ASSERT_TRUE(waitFor("child", "finished: 0"));
    EXPECT_EQ(eventsOf("child"), QStringList({"started", "stdout: output\n", "finished: 0"}));
}

TEST_F(ProcessManagerEvents, comeAtMostTenTimesASecondForEachStream)
{
    QElapsedTimer timer;
    timer.start();
    start("child", {"--flood", "both", "20000", "2000", "--join", "--sleep", "200"});
    ASSERT_TRUE(waitFor("child", "finished: 0"));
    const qint64 flushes = timer.elapsed() / 100 + 2; // and the last one
    for (const char *stream : {"stdout", "stderr"}) {
        const auto count = std::ranges::count_if(events, [&](const QJsonObject &e) { return e["event"] == stream; });
        EXPECT_LE(count, flushes) << stream;
        EXPECT_GE(count, 5) << stream;
    }
}

TEST_F(ProcessManagerEvents, bringOutputWholeAndInOrder)
{
    constexpr int count = 5000; // 65,000 bytes: 16 cycles of the reader
    start("child", {"--lines", "both", QString::number(count), "--join", "--wait"});
    const QString expected = lines(count);
    test::waitUntil([&] {
        return outputOf("child", "stdout").size() >= expected.size()
               && outputOf("child", "stderr").size() >= expected.size();
    });
    EXPECT_EQ(outputOf("child", "stdout"), expected);
    EXPECT_EQ(outputOf("child", "stderr"), expected);
}

TEST_F(ProcessManagerEvents, bringOutputInOrderUpToWhatWasInThePipeAtTheEnd)
{
    start("child", {"--flood", "stdout", bytesPerSecond, floodTime()});
    ASSERT_TRUE(waitFor("child", "finished: 0"));
    const QString output = outputOf("child", "stdout");
    EXPECT_GT(output.size(), 8192);
    EXPECT_TRUE(lines(static_cast<int>(output.size() / 13) + 1).startsWith(output));
    EXPECT_EQ(eventsOf("child").last(), "finished: 0");
}

TEST_F(ProcessManagerEvents, haveReplacementCharactersOnlyAtTheirBorders)
{
    start("child", {"--utf8", "stdout", bytesPerSecond, floodTime()});
    ASSERT_TRUE(waitFor("child", "finished: 0"));
    int outputs = 0;
    qint64 last = -1;
    for (const QJsonObject &event : events) {
        if (event["event"] != "stdout")
            continue;
        ++outputs;
        // A character that was cut leaves at most three replacements on each side.
        const QString data = event["data"].toString();
        EXPECT_FALSE(data.sliced(3, data.size() - 6).contains(QChar::ReplacementCharacter)) << data.toStdString();
        for (const qint64 number : wholeNumbers(data)) {
            // The line at the border of two events is in neither of them whole.
            EXPECT_TRUE(number == last + 1 || number == last + 2) << number << " after " << last;
            last = number;
        }
    }
    EXPECT_GT(outputs, 5);
    EXPECT_GT(last, 200);
}

TEST_F(ProcessManagerEvents, doNotHoldUpTheServiceThreadInAFlood)
{
    qint64 longest = 0;
    QElapsedTimer sinceLast;
    QTimer tick;
    QObject::connect(&tick, &QTimer::timeout, [&] { longest = std::max(longest, sinceLast.restart()); });
    start("child", {"--flood", "both", bytesPerSecond, floodTime()});
    sinceLast.start();
    tick.start(10);
    ASSERT_TRUE(waitFor("child", "finished: 0"));
    std::printf("%d ms of a flood: %lld and %lld bytes arrived, the longest gap in the service thread was %lld ms\n",
                floodTime().toInt(), static_cast<long long>(outputOf("child", "stdout").size()),
                static_cast<long long>(outputOf("child", "stderr").size()), static_cast<long long>(longest));
    EXPECT_LT(longest, 3000);
}

TEST_F(ProcessManagerEvents, tellOfAnErrorThatAProcessReports)
{
    ASSERT_TRUE(startReady("child", {"--print", "ready", "--wait"}));
    manager->findChild<ManagedProcess *>()->onProcessError(QProcess::ReadError);
    EXPECT_EQ(withoutTimestamp(events.last()),
              (QJsonObject{{"process-id", "child"}, {"event", "error"}, {"data", "Read error"}}));
}

TEST_F(ProcessManagerEvents, tellOfEveryStartOfARestartedProcess)
{
    start("child", {"--exit", "3"}, {{"auto-restart", true}, {"max-restart-attempts", 3}, {"restart-delay-ms", 50}});
    ASSERT_TRUE(waitFor("child", "finished: 3"));
    EXPECT_EQ(eventsOf("child"), QStringList({"started", "started", "started", "started", "finished: 3"}));
    EXPECT_EQ(registered(), 0);
}

TEST_F(ProcessManagerEvents, tellOfChildrenThatCloseTheirStreamsEarly)
{
    start("child", {"--print", "before", "--sleep", "200", "--close", "stdout", "--close", "stdin", "--close",
                    "stderr", "--sleep", "1000", "--exit", "6"});
    ASSERT_TRUE(waitFor("child", "finished: 6"));
    EXPECT_EQ(eventsOf("child"), QStringList({"started", "stdout: before\n", "finished: 6"}));
}

} // namespace
} // namespace ruvo
