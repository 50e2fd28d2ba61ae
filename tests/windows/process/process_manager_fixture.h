#pragma once

#include "process/process_manager.h"

#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/process/child.h"
#include "windows/process/console_delivery.h"

#include <gtest/gtest.h>

#include <QDateTime>
#include <QJsonArray>
#include <QList>
#include <QStringList>

#include <memory>
#include <utility>

namespace ruvo {

/// A registry whose sweep for stale entries, a second after its construction, is over: else it would come in the
/// middle of a slow test.
std::unique_ptr<ProcessManager> sweptManager();

/// A registry of children and the events that it has published.
class ProcessManagerTest : public ::testing::Test
{
protected:
    explicit ProcessManagerTest(std::unique_ptr<ProcessManager> supervisor = sweptManager())
        : manager(std::move(supervisor))
    {
        QObject::connect(manager.get(), &ProcessManager::processEvent,
                         [this](const QJsonObject &event) { events.append(event); });
    }
    ~ProcessManagerTest() override { killAll(); }

    QJsonObject start(const QString &processId, const QStringList &script, const QJsonObject &more = {})
    {
        return manager->startProcess(test::childSpec(processId, script, more));
    }
    /// Starts a child and waits until it has said "ready", which its script has to contain.
    bool startReady(const QString &processId, const QStringList &script, const QJsonObject &more = {})
    {
        return start(processId, script, more)["status"] == "started" && waitFor(processId, "stdout: ready\n");
    }
    /// Runs a child that writes so many bytes and waits, and ends it with code 5 once they are in the registry, which
    /// does not flush on time any more: what is told of them is told at the end.
    void runUnflushed(const QString &processId, const QStringList &script, qsizetype bytes);
    /// Ends every child that is still there. Its end is not heard.
    void killAll()
    {
        const QJsonArray listed = manager->listProcesses()["processes"].toArray();
        for (const QJsonValue &entry : listed)
            manager->killProcess(entry["process-id"].toString());
    }

    /// "<event>" or "<event>: <data>" for each event of the process, in order.
    QStringList eventsOf(const QString &processId) const
    {
        QStringList texts;
        for (const QJsonObject &event : events) {
            if (event["process-id"] != processId)
                continue;
            const QString name = event["event"].toString();
            texts.append(event.contains("data") ? name + ": " + event["data"].toString() : name);
        }
        return texts;
    }
    bool waitFor(const QString &processId, const QString &event)
    {
        return test::waitUntil([&] { return eventsOf(processId).contains(event); });
    }
    /// All that the process has written to a stream, as its events told.
    QString outputOf(const QString &processId, const QString &stream) const
    {
        QString text;
        for (const QJsonObject &event : events) {
            if (event["process-id"] == processId && event["event"] == stream)
                text += event["data"].toString();
        }
        return text;
    }
    qint64 pidOf(const QString &processId) const { return manager->getProcessStatus(processId)["pid"].toInteger(); }
    qsizetype registered() const { return manager->listProcesses()["processes"].toArray().size(); }

    /// Takes the timestamp out of a result or event after a look at it: what is left can be compared whole.
    static QJsonObject withoutTimestamp(QJsonObject object)
    {
        const QString text = object.take("timestamp").toString();
        const QDateTime time = QDateTime::fromString(text, "yyyy-MM-ddTHH:mm:ss");
        EXPECT_TRUE(time.isValid()) << text.toStdString();
        EXPECT_LE(qAbs(time.secsTo(QDateTime::currentDateTime())), 30) << text.toStdString();
        return object;
    }
    static QJsonObject error(const QString &text) { return {{"status", "error"}, {"error", text}}; }

    const test::ConsoleDelivery delivery;
    test::LogCapture log;
    std::unique_ptr<ProcessManager> manager;
    QList<QJsonObject> events;
};

} // namespace ruvo
