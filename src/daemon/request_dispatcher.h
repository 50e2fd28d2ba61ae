#pragma once

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
};

/// Runs the action that a client's message names, and answers it.
///
/// Service thread only; one message at a time. A bad request is answered with an error and never ends the
/// connection.
class RequestDispatcher : public QObject
{
    Q_OBJECT

public:
    explicit RequestDispatcher(RequestServices services, QObject *parent = nullptr);

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
    Response clearLogs(const Request &request);

    void restartForNewerClient(const Request &request);

    const RequestServices m_services;
};

} // namespace ruvo
