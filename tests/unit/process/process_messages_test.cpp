#include "process/process_messages.h"

#include <gtest/gtest.h>

#include <QDateTime>

namespace ruvo {
namespace {

class ProcessObjects : public ::testing::Test
{
protected:
    /// Takes the timestamp out of `object` after a look at it; what is left can be compared whole.
    QJsonObject withoutTimestamp(QJsonObject object) const
    {
        const QString text = object.take("timestamp").toString();
        const QDateTime written = QDateTime::fromString(text, "yyyy-MM-ddTHH:mm:ss");
        EXPECT_TRUE(written.isValid()) << text.toStdString();
        const QDateTime asUtc(written.date(), written.time(), Qt::UTC);
        EXPECT_GE(asUtc.toSecsSinceEpoch(), m_begin + m_offset) << text.toStdString();
        EXPECT_LE(asUtc.toSecsSinceEpoch(), QDateTime::currentSecsSinceEpoch() + m_offset) << text.toStdString();
        return object;
    }

private:
    // CTest runs this in a zone far from UTC, where local time can be told from it.
    const int m_offset = QDateTime::currentDateTime().offsetFromUtc();
    const qint64 m_begin = QDateTime::currentSecsSinceEpoch();
};

TEST_F(ProcessObjects, statusHasItsMessage)
{
    EXPECT_EQ(withoutTimestamp(createStatusResponse("started", "Process started successfully")),
              (QJsonObject{{"status", "started"}, {"message", "Process started successfully"}}));
}

TEST_F(ProcessObjects, statusWithoutMessageHasNoKeyForIt)
{
    EXPECT_EQ(withoutTimestamp(createStatusResponse("success")), (QJsonObject{{"status", "success"}}));
    EXPECT_EQ(withoutTimestamp(createStatusResponse("success", "")), (QJsonObject{{"status", "success"}}));
}

TEST_F(ProcessObjects, errorHasStatusAndText)
{
    EXPECT_EQ(withoutTimestamp(createErrorResponse("Process not found: x")),
              (QJsonObject{{"status", "error"}, {"error", "Process not found: x"}}));
}

TEST_F(ProcessObjects, eventHasItsData)
{
    EXPECT_EQ(withoutTimestamp(createEventObject("core", "finished", "-1")),
              (QJsonObject{{"process-id", "core"}, {"event", "finished"}, {"data", "-1"}}));
}

TEST_F(ProcessObjects, eventWithoutDataHasNoKeyForIt)
{
    const QJsonObject started{{"process-id", "core"}, {"event", "started"}};
    EXPECT_EQ(withoutTimestamp(createEventObject("core", "started")), started);
    EXPECT_EQ(withoutTimestamp(createEventObject("core", "started", "")), started);
}

} // namespace
} // namespace ruvo
