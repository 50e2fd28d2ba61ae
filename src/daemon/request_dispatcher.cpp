#include "daemon/request_dispatcher.h"

#include "common/log_category.h"
#include "common/version.h"

#include <QJsonDocument>
#include <QTimer>
#include <QVersionNumber>

#include <chrono>
#include <utility>

namespace ruvo {

namespace {

using namespace std::chrono_literals;

/// Time for the answer to reach the client before the daemon goes.
constexpr auto restartDelay = 100ms;

QJsonObject success()
{
    return {{"status", "success"}};
}

QJsonObject failure(const QString &text)
{
    return {{"status", "error"}, {"error", text}};
}

QString compact(const QJsonObject &object)
{
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

} // namespace

// Compared exactly, in this order.
const RequestDispatcher::Action RequestDispatcher::actions[] = {
    {"client-hello", &RequestDispatcher::clientHello},
    {"heartbeat", &RequestDispatcher::heartbeat},
    {"clear-logs", &RequestDispatcher::clearLogs},
};

RequestDispatcher::RequestDispatcher(RequestServices services, QObject *parent)
    : QObject(parent)
    , m_services(std::move(services))
{
}

void RequestDispatcher::handleClientMessage(const QString &clientId, const QJsonObject &message)
{
    const QString action = message["action"].toString();
    qCDebug(lcRuvod) << "Client" << clientId << "action:" << action << "message:" << compact(message);
    const Request request{clientId, message};
    if (Response response = run(action, request))
        respond(request, std::move(*response));
}

RequestDispatcher::Response RequestDispatcher::run(const QString &action, const Request &request)
{
    for (const Action &row : actions) {
        if (action == QLatin1StringView(row.name))
            return (this->*row.run)(request);
    }
    return failure("Unknown action: " + action);
}

void RequestDispatcher::respond(const Request &request, QJsonObject response)
{
    if (const auto id = request.message.constFind("request-id"); id != request.message.constEnd())
        response["request-id"] = *id;
    qCDebug(lcRuvod) << "Sending response to client" << request.clientId << ":" << compact(response);
    m_services.sendToClient(request.clientId, response);
}

RequestDispatcher::Response RequestDispatcher::clientHello(const Request &request)
{
    const QString logPath = request.message["log-path"].toString();
    if (logPath.isEmpty())
        return failure("Log path cannot be empty");
    m_services.useLogFile(logPath);

    const QString clientVersion = request.message["version"].toString();
    if (clientVersion.isEmpty()) {
        qCInfo(lcRuvod) << "Client connected:" << request.clientId;
        return success();
    }
    const QString daemonVersion = QString::fromLatin1(version);
    qCInfo(lcRuvod) << "Client connected:" << request.clientId << "- Client version:" << clientVersion
                    << "Daemon version:" << daemonVersion;
    if (QVersionNumber::fromString(clientVersion) <= QVersionNumber::fromString(daemonVersion))
        return success();

    qCInfo(lcRuvod) << "Client version" << clientVersion << "is higher than daemon version" << daemonVersion
                    << "- restarting daemon";
    restartForNewerClient(request);
    return std::nullopt;
}

// The daemon only ends: starting the newer one is the client's or the installer's business.
void RequestDispatcher::restartForNewerClient(const Request &request)
{
    respond(request, {{"status", "restarting"}, {"reason", "Client version is higher than daemon version"}});
    QTimer::singleShot(restartDelay, this, [this] {
        qCInfo(lcRuvod) << "Initiating daemon restart due to version mismatch";
        m_services.quit();
    });
}

RequestDispatcher::Response RequestDispatcher::heartbeat(const Request &request)
{
    m_services.updateHeartbeat(request.clientId);
    return success();
}

RequestDispatcher::Response RequestDispatcher::clearLogs(const Request &)
{
    return m_services.clearLogs() ? success() : failure("Failed to clear daemon logs");
}

} // namespace ruvo
