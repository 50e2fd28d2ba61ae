#pragma once

#include "daemon/process_ownership.h"

#include <QJsonObject>
#include <QObject>
#include <QString>

#include <functional>
#include <optional>

namespace ruvo {

/// What a request may set in motion. All functions are called on the service thread and have to be set.
struct RequestServices
{
    std::function<void(const QString &clientId, const QJsonObject &message)> sendToClient;
    std::function<void(const QString &clientId)> updateHeartbeat;
    /// The log goes to this file from now on.
    std::function<void(const QString &path)> useLogFile;
    std::function<bool()> clearLogs;
    /// Ends the daemon.
    std::function<void()> quit;
    /// Whether the daemon is on its way out: nothing new is started then.
    std::function<bool()> isStopping;

    std::function<QJsonObject(const QJsonObject &spec)> startProcess;
    std::function<QJsonObject(const QString &processId)> stopProcess;
    std::function<QJsonObject(const QString &processId)> killProcess;
    std::function<QJsonObject(const QString &processId)> restartProcess;
    std::function<QJsonObject(const QString &processId)> processStatus;
    std::function<QJsonObject()> listProcesses;
    /// False if the process is unknown.
    std::function<bool(const QString &processId, const QByteArray &data)> writeToProcess;

    std::function<QJsonObject(const QJsonObject &config)> startTun;
    std::function<QJsonObject()> stopTun;
    std::function<QJsonObject()> tunStatus;
    std::function<void()> flushDnsCache;
    std::function<void()> resetConnections;
};

/// Runs the action that a client's message names, and answers it.
///
/// Service thread only; one message at a time. A bad request is answered with an error and never ends the
/// connection.
class RequestDispatcher : public QObject
{
    Q_OBJECT

public:
    /// `ownership` has to outlive the dispatcher.
    RequestDispatcher(RequestServices services, ProcessOwnership &ownership, QObject *parent = nullptr);

    void handleClientMessage(const QString &clientId, const QJsonObject &message);

private:
    struct Request
    {
        QString clientId;
        QJsonObject message;
    };
    /// The answer, without the request's id; nothing if the action has answered itself.
    using Response = std::optional<QJsonObject>;
    struct Action
    {
        const char *name;
        Response (RequestDispatcher::*run)(const Request &request);
    };
    static const Action actions[];

    Response run(const QString &action, const Request &request);
    void respond(const Request &request, QJsonObject response);

    Response clientHello(const Request &request);
    Response heartbeat(const Request &request);
    Response start(const Request &request);
    Response stop(const Request &request);
    Response kill(const Request &request);
    Response restart(const Request &request);
    Response status(const Request &request);
    Response list(const Request &request);
    Response writeStdin(const Request &request);
    Response clearLogs(const Request &request);
    Response startTun(const Request &request);
    Response stopTun(const Request &request);
    Response tunStatus(const Request &request);
    Response flushDnsCache(const Request &request);
    Response resetConnections(const Request &request);

    void restartForNewerClient(const Request &request);

    const RequestServices m_services;
    ProcessOwnership &m_ownership;
};

} // namespace ruvo
