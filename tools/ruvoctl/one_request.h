#pragma once

#include <QJsonObject>
#include <QObject>
#include <QTimer>

#include <chrono>

namespace ruvo {

class PipeClient;

/// Sends one request and waits for its answer; events that come before it are passed over.
class OneRequest : public QObject
{
    Q_OBJECT

public:
    OneRequest(PipeClient &client, const QJsonObject &request, std::chrono::milliseconds timeout,
               QObject *parent = nullptr);

    void start();

signals:
    void output(const QByteArray &line);
    void problem(const QString &text);
    /// Once; `exitStatus` is one of ExitStatus.
    void finished(int exitStatus);

private:
    void onMessage(const QJsonObject &message);
    void fail(const QString &text);
    void finish(int exitStatus);

    PipeClient &m_client;
    const QJsonObject m_request;
    const std::chrono::milliseconds m_timeout;
    QTimer m_timer;
    bool m_finished = false;
};

} // namespace ruvo
