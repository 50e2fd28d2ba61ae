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

QString processId(const QJsonObject &message)
{
    return message["process-id"].toString();
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
    {"start", &RequestDispatcher::start},
    {"stop", &RequestDispatcher::stop},
    {"kill", &RequestDispatcher::kill},
    {"restart", &RequestDispatcher::restart},
    {"status", &RequestDispatcher::status},
    {"list", &RequestDispatcher::list},
    {"stdin", &RequestDispatcher::writeStdin},
    {"clear-logs", &RequestDispatcher::clearLogs},
    {"start-tun", &RequestDispatcher::startTun},
    {"stop-tun", &RequestDispatcher::stopTun},
    {"tun-status", &RequestDispatcher::tunStatus},
    {"flush-dns-cache", &RequestDispatcher::flushDnsCache},
    {"reset-connections", &RequestDispatcher::resetConnections},
};

RequestDispatcher::RequestDispatcher(RequestServices services, ProcessOwnership &ownership, QObject *parent)
    : QObject(parent), m_services(std::move(services)), m_ownership(ownership)
{}

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
    // Normalised: Qt takes 2.0.1.0 for newer than 2.0.1, and such a client would end the daemon at every hello.
    if (QVersionNumber::fromString(clientVersion).normalized()
        <= QVersionNumber::fromString(daemonVersion).normalized())
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

// The owner is recorded before the start, whose own events already have to reach it. A start of a process that
// runs fails, and so takes the process away from its owner.
RequestDispatcher::Response RequestDispatcher::start(const Request &request)
{
    if (m_services.isStopping())
        return failure("Daemon is stopping");
    const QString id = processId(request.message);
    m_ownership.setOwner(id, request.clientId);
    qCDebug(lcRuvod) << "Process" << id << "will be owned by client" << request.clientId;
    const QJsonObject result = m_services.startProcess(request.message);
    if (result["status"].toString() != QLatin1StringView("started")) {
        m_ownership.remove(id);
        qCDebug(lcRuvod) << "Process" << id << "failed to start, removed ownership";
    }
    return result;
}

RequestDispatcher::Response RequestDispatcher::stop(const Request &request)
{
    return m_services.stopProcess(processId(request.message));
}

RequestDispatcher::Response RequestDispatcher::kill(const Request &request)
{
    return m_services.killProcess(processId(request.message));
}

RequestDispatcher::Response RequestDispatcher::restart(const Request &request)
{
    return m_services.restartProcess(processId(request.message));
}

RequestDispatcher::Response RequestDispatcher::status(const Request &request)
{
    return m_services.processStatus(processId(request.message));
}

RequestDispatcher::Response RequestDispatcher::list(const Request &)
{
    return m_services.listProcesses();
}

RequestDispatcher::Response RequestDispatcher::writeStdin(const Request &request)
{
    const QByteArray data = request.message["data"].toString().toUtf8();
    return m_services.writeToProcess(processId(request.message), data) ? success()
                                                                       : failure("Failed to write to process stdin");
}

RequestDispatcher::Response RequestDispatcher::clearLogs(const Request &)
{
    return m_services.clearLogs() ? success() : failure("Failed to clear daemon logs");
}

RequestDispatcher::Response RequestDispatcher::startTun(const Request &request)
{
    if (m_services.isStopping())
        return failure("Daemon is stopping");
    return m_services.startTun(request.message);
}

RequestDispatcher::Response RequestDispatcher::stopTun(const Request &request)
{
    qCWarning(lcRuvod) << "Explicit stop-tun request from client" << request.clientId;
    return m_services.stopTun();
}

RequestDispatcher::Response RequestDispatcher::tunStatus(const Request &)
{
    return m_services.tunStatus();
}

RequestDispatcher::Response RequestDispatcher::flushDnsCache(const Request &)
{
    m_services.flushDnsCache();
    return success();
}

RequestDispatcher::Response RequestDispatcher::resetConnections(const Request &)
{
    m_services.resetConnections();
    return success();
}

} // namespace ruvo
