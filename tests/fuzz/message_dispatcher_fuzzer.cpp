// Whatever object a client sends gets one answer, with a status and the request's id, and harms nothing.
//
// Input: a payload as it comes in a frame.

#include "daemon/request_dispatcher.h"
#include "fuzz_check.h"

#include <QCoreApplication>
#include <QJsonDocument>

#include <cstdint>

namespace {

using ruvo::ProcessOwnership;
using ruvo::RequestDispatcher;
using ruvo::RequestServices;

/// What the services were asked for in one run.
struct Record
{
    QList<QJsonObject> answers;
    int updates = 0;
    bool works = false;
};

/// Debug lines are made (they are on when someone looks for a fault), but go nowhere.
void ignoreMessage(QtMsgType, const QMessageLogContext &, const QString &) {}

RequestServices recordingServices(Record &record)
{
    const auto result = [&record] {
        ++record.updates;
        return QJsonObject{{"status", record.works ? "started" : "error"}};
    };
    const auto byId = [result](const QString &) { return result(); };

    RequestServices services;
    services.sendToClient = [&record](const QString &client, const QJsonObject &message) {
        FUZZ_CHECK(client == u"c1");
        record.answers.append(message);
    };
    services.updateHeartbeat = [&record](const QString &client) {
        FUZZ_CHECK(client == u"c1");
        ++record.updates;
    };
    services.useLogFile = [&record](const QString &path) {
        FUZZ_CHECK(!path.isEmpty());
        ++record.updates;
    };
    services.clearLogs = [&record] {
        ++record.updates;
        return record.works;
    };
    services.quit = [] {};
    services.isStopping = [&record] { return !record.works; };
    services.startProcess = [result](const QJsonObject &) { return result(); };
    services.stopProcess = byId;
    services.killProcess = byId;
    services.restartProcess = byId;
    services.processStatus = byId;
    services.listProcesses = result;
    services.writeToProcess = [&record](const QString &, const QByteArray &) {
        ++record.updates;
        return record.works;
    };
    services.startTun = [result](const QJsonObject &) { return result(); };
    services.stopTun = result;
    services.tunStatus = result;
    services.flushDnsCache = [&record] { ++record.updates; };
    services.resetConnections = [&record] { ++record.updates; };
    return services;
}

void checkAnswer(const QJsonObject &request, const Record &record)
{
    FUZZ_CHECK(record.answers.size() == 1);
    const QJsonObject &answer = record.answers[0];
    FUZZ_CHECK(answer["status"].isString());
    FUZZ_CHECK(answer.contains("request-id") == request.contains("request-id"));
    FUZZ_CHECK(answer["request-id"] == request["request-id"]);
    if (answer["error"].toString().startsWith("Unknown action: ")) {
        FUZZ_CHECK(answer["error"].toString() == "Unknown action: " + request["action"].toString());
        FUZZ_CHECK(record.updates == 0);
    }
    if (answer["status"] == "restarting")
        FUZZ_CHECK(!request["version"].toString().isEmpty());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    // Lives as long as the process; the restart of a newer client needs its timers.
    static const QCoreApplication application(*argc, *argv);
    qInstallMessageHandler(ignoreMessage);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray payload(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
    const QJsonDocument document = QJsonDocument::fromJson(payload);
    if (!document.isObject())
        return 0;

    Record record;
    ProcessOwnership ownership;
    RequestDispatcher dispatcher(recordingServices(record), ownership);
    for (const bool works : {true, false}) {
        record = Record{{}, 0, works};
        dispatcher.handleClientMessage("c1", document.object());
        checkAnswer(document.object(), record);
    }
    QCoreApplication::processEvents();
    return 0;
}
