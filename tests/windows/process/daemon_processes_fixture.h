#pragma once

#include "daemon/ruvo_daemon.h"

#include "process/process_manager.h"
#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/process/child.h"
#include "windows/process/console_delivery.h"
#include "windows/support/daemon_client.h"
#include "windows/support/fake_sessions.h"

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

#include <memory>

namespace ruvo {

/// A client and the id that the daemon gave it.
struct Client
{
    test::DaemonClient connection{1};
    QString id;

    /// "<event>" or "<event>: <data>" for each event about the process, in order.
    QStringList eventsOf(const QString &processId)
    {
        QStringList texts;
        for (const QJsonObject &message : connection.pipe().messages()) {
            if (!message.contains("event") || message["process-id"] != processId)
                continue;
            EXPECT_FALSE(message.contains("request-id"));
            const QString name = message["event"].toString();
            texts.append(message.contains("data") ? name + ": " + message["data"].toString() : name);
        }
        return texts;
    }
    bool waitFor(const QString &processId, const QString &event)
    {
        return test::waitUntil([&] { return eventsOf(processId).contains(event); });
    }
    QJsonObject start(const QString &processId, const QStringList &script)
    {
        return connection.request("start", test::childSpec(processId, script));
    }
    bool startReady(const QString &processId, const QStringList &script)
    {
        return start(processId, script)["status"] == "started" && waitFor(processId, "stdout: ready\n");
    }
    qint64 pidOf(const QString &processId)
    {
        return connection.request("status", {{"process-id", processId}})["pid"].toInteger();
    }
    bool isRunning(const QString &processId)
    {
        return connection.request("status", {{"process-id", processId}})["running"].toBool();
    }
};

/// The daemon with real pipes and real children.
class DaemonProcesses : public ::testing::Test
{
protected:
    DaemonProcesses()
    {
        EXPECT_TRUE(daemon.start());
        // The sweep for stale entries would come in the middle of a slow test.
        test::waitUntil([] { return false; }, std::chrono::milliseconds(1300));
    }
    ~DaemonProcesses() override
    {
        ProcessManager *manager = processManager();
        const QJsonArray listed = manager->listProcesses()["processes"].toArray();
        for (const QJsonValue &entry : listed)
            manager->killProcess(entry["process-id"].toString());
        if (!stopped)
            daemon.stop();
    }

    std::unique_ptr<Client> connectClient()
    {
        auto client = std::make_unique<Client>();
        EXPECT_FALSE(client->connection.waitForEvent("connected").isEmpty());
        log.clear();
        EXPECT_EQ(client->connection.request("heartbeat")["status"], "success");
        const QRegularExpression pattern("Client \"([0-9a-f]+)\" action: \"heartbeat\"");
        client->id = pattern.match(log.lines().join('\n')).captured(1);
        EXPECT_FALSE(client->id.isEmpty());
        return client;
    }
    /// One request as it goes over the pipe.
    static QByteArray frame(const QJsonObject &message)
    {
        return test::PipeClient::frame(QJsonDocument(message).toJson(QJsonDocument::Compact));
    }
    ProcessManager *processManager() { return daemon.findChild<ProcessManager *>(); }
    bool waitForLine(const QString &text)
    {
        return test::waitUntil([&] { return log.contains(text); });
    }

    const test::FakeSessions sessions{{.id = 1}};
    const test::ConsoleDelivery delivery;
    test::LogCapture log;
    RuvoDaemon daemon;
    bool stopped = false;
};

} // namespace ruvo
