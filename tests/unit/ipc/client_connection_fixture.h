#pragma once

#include "ipc/client_connection.h"

#include "support/connected_pair.h"
#include "support/log_capture.h"
#include "support/wait_until.h"

#include <gtest/gtest.h>

#include <QJsonDocument>

#include <functional>

namespace ruvo {

/// A connection over a real pipe, and what it has signalled.
class ClientConnectionTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(pair.isConnected());
        QObject::connect(&connection, &ClientConnection::messageReceived,
                         [this](const QString &id, const QJsonObject &message) {
                             EXPECT_EQ(id, connection.clientId());
                             received.append(message);
                             if (handler)
                                 handler(message);
                         });
        QObject::connect(&connection, &ClientConnection::clientDisconnected, [this](const QString &id) {
            EXPECT_EQ(id, connection.clientId());
            ++disconnects;
        });
    }

    void attach() { connection.setSocket(pair.accepted(), 7); }
    bool receives(const QList<QJsonObject> &messages)
    {
        return test::waitUntil([&] { return received.size() >= messages.size(); }) && received == messages;
    }
    /// Sends a message and waits for it: whatever was sent before has been dealt with then.
    bool isInStep()
    {
        const QJsonObject marker{{"marker", received.size()}};
        pair.client().send(QJsonDocument(marker).toJson());
        return test::waitUntil([&] { return received.contains(marker); });
    }

    test::LogCapture log;
    test::ConnectedPair pair;
    QList<QJsonObject> received;
    int disconnects = 0;
    std::function<void(const QJsonObject &)> handler;
    ClientConnection connection;
};

} // namespace ruvo
