#pragma once

#include "daemon/request_dispatcher.h"

#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>

#include <memory>
#include <utility>

namespace ruvo {

inline QJsonObject object(const char *json)
{
    return QJsonDocument::fromJson(json).object();
}

inline QString compact(const QJsonObject &json)
{
    return QString::fromUtf8(QJsonDocument(json).toJson(QJsonDocument::Compact));
}

inline const QJsonObject successAnswer = object(R"({"status": "success"})");

inline QJsonObject errorAnswer(const QString &text)
{
    return {{"status", "error"}, {"error", text}};
}

/// A dispatcher whose services write down what was asked of them, each with its arguments, and return what the test
/// has set.
class RequestDispatcherTest : public ::testing::Test
{
protected:
    RequestDispatcherTest()
    {
        RequestServices services;
        services.sendToClient = [this](const QString &client, const QJsonObject &message) {
            EXPECT_EQ(client, "c1");
            answers.append(message);
        };
        services.updateHeartbeat = [this](const QString &client) { calls.append("heartbeat " + client); };
        services.useLogFile = [this](const QString &path) { calls.append("log " + path); };
        services.clearLogs = [this] {
            calls.append("clear");
            return works;
        };
        services.quit = [this] { calls.append("quit"); };
        services.isStopping = [this] { return stopping; };
        services.startProcess = [this](const QJsonObject &spec) {
            calls.append("start " + compact(spec));
            ownerDuringStart = ownership.owner(spec["process-id"].toString());
            return result;
        };
        services.stopProcess = [this](const QString &id) {
            calls.append("stop " + id);
            return result;
        };
        services.killProcess = [this](const QString &id) {
            calls.append("kill " + id);
            return result;
        };
        services.restartProcess = [this](const QString &id) {
            calls.append("restart " + id);
            return result;
        };
        services.processStatus = [this](const QString &id) {
            calls.append("status " + id);
            return result;
        };
        services.listProcesses = [this] {
            calls.append("list");
            return result;
        };
        services.writeToProcess = [this](const QString &id, const QByteArray &data) {
            calls.append("write " + id + ' ' + QString::fromLatin1(data.toPercentEncoding()));
            return works;
        };
        services.startTun = [this](const QJsonObject &config) {
            calls.append("start tun " + compact(config));
            return result;
        };
        services.stopTun = [this] {
            calls.append("stop tun");
            return result;
        };
        services.tunStatus = [this] {
            calls.append("tun status");
            return result;
        };
        services.flushDnsCache = [this] { calls.append("flush"); };
        services.resetConnections = [this] { calls.append("reset"); };
        dispatcher = std::make_unique<RequestDispatcher>(std::move(services), ownership);
    }

    /// The one answer to a request, given before the call returns.
    QJsonObject ask(const QJsonObject &request)
    {
        answers.clear();
        dispatcher->handleClientMessage("c1", request);
        EXPECT_EQ(answers.size(), 1);
        return answers.value(0);
    }
    QJsonObject ask(const char *json) { return ask(object(json)); }

    test::LogCapture log;
    QStringList calls;
    QList<QJsonObject> answers;
    QJsonObject result = object(R"({"success": true, "kept": [1]})");
    bool works = true;
    bool stopping = false;
    std::optional<QString> ownerDuringStart;
    ProcessOwnership ownership;
    std::unique_ptr<RequestDispatcher> dispatcher;
};

} // namespace ruvo
