#pragma once

#include "ipc/communication_server.h"

#include "support/log_capture.h"
#include "support/pipe_client.h"
#include "support/wait_until.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QJsonDocument>

#include <memory>

namespace ruvo {

/// A communication server whose sessions and clock the test sets, and a record of what it signals.
class CommunicationServerTest : public ::testing::Test
{
protected:
    using Milliseconds = CommunicationServer::Milliseconds;

    CommunicationServerTest()
    {
        using Server = CommunicationServer;
        QObject::connect(&server, &Server::clientConnected, [this](const QString &id) {
            ids.append(id);
            signalled.append("connected " + id);
        });
        QObject::connect(&server, &Server::clientDisconnected, [this](const QString &id, quint32 session) {
            signalled.append(QString("disconnected %1 session %2").arg(id).arg(session));
        });
        QObject::connect(&server, &Server::clientTimedOut, [this](const QString &id, quint32 session) {
            signalled.append(QString("timed out %1 session %2").arg(id).arg(session));
        });
        QObject::connect(&server, &Server::messageReceived, [this](const QString &id, const QJsonObject &message) {
            const QByteArray text = QJsonDocument(message).toJson(QJsonDocument::Compact);
            signalled.append("message " + id + ' ' + QString::fromUtf8(text));
        });
        QObject::connect(&server, &Server::serverError, [this] { signalled.append("server error"); });
    }

    QString pipeName(quint32 session) const { return QString(R"(\\.\pipe\%1-%2)").arg(serverName).arg(session); }
    /// A client that the server has accepted; null if it did not.
    std::unique_ptr<test::PipeClient> connectClient(quint32 session = 1)
    {
        const qsizetype before = ids.size();
        auto client = std::make_unique<test::PipeClient>(pipeName(session));
        if (!test::waitUntil([&] { return ids.size() == before + 1; }))
            return nullptr;
        return client;
    }
    bool canConnect(quint32 session) const { return test::PipeClient(pipeName(session)).isConnected(); }
    bool isSignalled(const QString &what)
    {
        return test::waitUntil([&] { return signalled.contains(what); });
    }
    /// Lets everything happen that is on its way. There is no event to wait for when nothing should come.
    static void settle()
    {
        for (int i = 0; i < 5; ++i)
            test::processPending();
    }

    /// Unlike the service's own, so that it may run beside it.
    const QString serverName = QString("ruvod-test-%1").arg(QCoreApplication::applicationPid());
    test::LogCapture log;
    QList<quint32> sessions{1};
    Milliseconds now{1'000'000};
    QStringList signalled;
    QStringList ids;
    CommunicationServer server{[this] { return sessions; }, nullptr, [this] { return now; }};
};

} // namespace ruvo
