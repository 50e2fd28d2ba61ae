#include "daemon/request_dispatcher.h"

#include "common/version.h"
#include "support/log_capture.h"
#include "support/wait_until.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>

#include <memory>
#include <utility>

namespace ruvo {
namespace {

using test::waitUntil;

QJsonObject object(const char *json)
{
    return QJsonDocument::fromJson(json).object();
}

QString compact(const QJsonObject &json)
{
    return QString::fromUtf8(QJsonDocument(json).toJson(QJsonDocument::Compact));
}

const QJsonObject successAnswer = object(R"({"status": "success"})");

QJsonObject errorAnswer(const QString &text)
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

// The envelope

class RequestId : public RequestDispatcherTest, public ::testing::WithParamInterface<const char *>
{};

TEST_P(RequestId, comesBackAsItWas)
{
    const QJsonValue id = object(GetParam())["request-id"];
    ASSERT_FALSE(id.isUndefined());
    EXPECT_EQ(ask({{"action", "heartbeat"}, {"request-id", id}}),
              (QJsonObject{{"status", "success"}, {"request-id", id}}));
    EXPECT_EQ(ask({{"action", "nonsense"}, {"request-id", id}}).value("request-id"), id);
    EXPECT_EQ(ask({{"action", "client-hello"}, {"request-id", id}}).value("request-id"), id);
    EXPECT_EQ(ask({{"action", "list"}, {"request-id", id}}).value("request-id"), id);
}

INSTANTIATE_TEST_SUITE_P(Value, RequestId,
                         ::testing::Values(R"({"request-id": 7})", R"({"request-id": -1.5e300})",
                                           R"({"request-id": 9007199254740993})", R"({"request-id": "text"})",
                                           R"({"request-id": ""})", R"({"request-id": true})",
                                           R"({"request-id": false})", R"({"request-id": null})",
                                           R"({"request-id": []})", R"({"request-id": [1, ["x"], null]})",
                                           R"({"request-id": {}})", R"({"request-id": {"a": {"request-id": 1}}})"));

TEST_F(RequestDispatcherTest, answersARequestWithoutAnIdWithoutOne)
{
    EXPECT_EQ(ask(R"({"action": "heartbeat"})"), successAnswer);
    EXPECT_FALSE(ask(R"({"action": "heartbeat", "Request-Id": 7})").contains("request-id"));
}

TEST_F(RequestDispatcherTest, logsRequestAndAnswer)
{
    ask(R"({"action": "heartbeat", "request-id": 7})");
    EXPECT_EQ(log.lines(),
              (QStringList{
                  R"(DEBUG Client "c1" action: "heartbeat" message: "{\"action\":\"heartbeat\",\"request-id\":7}")",
                  R"(DEBUG Sending response to client "c1" : "{\"request-id\":7,\"status\":\"success\"}")",
              }));
}

// Unknown actions

class UnknownAction : public RequestDispatcherTest, public ::testing::WithParamInterface<const char *>
{};

TEST_P(UnknownAction, isNamedInTheAnswerAndDoesNothing)
{
    const QString action = QString::fromUtf8(GetParam());
    EXPECT_EQ(ask({{"action", action}}), errorAnswer("Unknown action: " + action));
    EXPECT_EQ(calls, QStringList());
}

INSTANTIATE_TEST_SUITE_P(Name, UnknownAction,
                         ::testing::Values("Start", "HEARTBEAT", "Client-Hello", "heartbeat ", " heartbeat", "heart",
                                           "heartbeats", "client_hello", "no such", "%1", "äöü \"quoted\"\n", ""));

TEST_F(RequestDispatcherTest, treatsAMissingActionAsTheEmptyOne)
{
    EXPECT_EQ(ask("{}"), errorAnswer("Unknown action: "));
    EXPECT_EQ(ask(R"({"Action": "heartbeat"})"), errorAnswer("Unknown action: "));
}

class ActionThatIsNoText : public RequestDispatcherTest, public ::testing::WithParamInterface<const char *>
{};

TEST_P(ActionThatIsNoText, isTheEmptyAction)
{
    EXPECT_EQ(ask(GetParam()), errorAnswer("Unknown action: "));
    EXPECT_EQ(calls, QStringList());
}

INSTANTIATE_TEST_SUITE_P(Value, ActionThatIsNoText,
                         ::testing::Values(R"({"action": 7})", R"({"action": null})", R"({"action": true})",
                                           R"({"action": ["heartbeat"]})", R"({"action": {"action": "heartbeat"}})"));

// Simple rows

TEST_F(RequestDispatcherTest, heartbeatIsNotedForItsClient)
{
    EXPECT_EQ(ask(R"({"action": "heartbeat"})"), successAnswer);
    EXPECT_EQ(calls, QStringList{"heartbeat c1"});
}

TEST_F(RequestDispatcherTest, clearLogsTellsHowItWent)
{
    EXPECT_EQ(ask(R"({"action": "clear-logs"})"), successAnswer);
    works = false;
    EXPECT_EQ(ask(R"({"action": "clear-logs"})"), errorAnswer("Failed to clear daemon logs"));
    EXPECT_EQ(calls, (QStringList{"clear", "clear"}));
}

// Processes

class ProcessAction : public RequestDispatcherTest, public ::testing::WithParamInterface<const char *>
{};

TEST_P(ProcessAction, passesTheProcessOnAndItsResultBackUnchanged)
{
    EXPECT_EQ(ask({{"action", GetParam()}, {"process-id", "core"}}), result);
    EXPECT_EQ(ask({{"action", GetParam()}, {"process-id", 7}}), result);
    EXPECT_EQ(ask({{"action", GetParam()}}), result);
    const QString name = GetParam();
    EXPECT_EQ(calls, (QStringList{name + " core", name + ' ', name + ' '})) << "what is missing is an empty text";
}

INSTANTIATE_TEST_SUITE_P(Name, ProcessAction, ::testing::Values("stop", "kill", "restart", "status"));

TEST_F(RequestDispatcherTest, listPassesItsResultBackUnchanged)
{
    EXPECT_EQ(ask(R"({"action": "list"})"), result);
    EXPECT_EQ(calls, QStringList{"list"});
}

TEST_F(RequestDispatcherTest, stdinWritesTheTextInUtf8WithoutALineEnd)
{
    EXPECT_EQ(ask({{"action", "stdin"}, {"process-id", "core"}, {"data", QString::fromUtf8("ü x")}}), successAnswer);
    EXPECT_EQ(ask(R"({"action": "stdin", "process-id": "core"})"), successAnswer);
    EXPECT_EQ(calls, (QStringList{"write core %C3%BC%20x", "write core "}));
}

TEST_F(RequestDispatcherTest, stdinTellsOfAFailedWrite)
{
    works = false;
    EXPECT_EQ(ask(R"({"action": "stdin", "process-id": "nobody", "data": "x"})"),
              errorAnswer("Failed to write to process stdin"));
}

TEST_F(RequestDispatcherTest, startPassesTheWholeRequestOnAndRecordsTheOwnerBeforeIt)
{
    result = object(R"({"status": "started", "pid": 5})");
    const char *request = R"({"action": "start", "process-id": "core", "program": "p"})";
    EXPECT_EQ(ask(request), result);
    EXPECT_EQ(calls, QStringList{"start " + compact(object(request))});
    EXPECT_EQ(ownerDuringStart, QString("c1")) << "events of the start itself reach it";
    EXPECT_EQ(ownership.owner("core"), QString("c1"));
    EXPECT_EQ(log.linesWith("owne"), QStringList{R"(DEBUG Process "core" will be owned by client "c1")"});
}

TEST_F(RequestDispatcherTest, startReplacesAnEarlierOwner)
{
    ownership.setOwner("core", "c0");
    result = object(R"({"status": "started"})");
    ask(R"({"action": "start", "process-id": "core"})");
    EXPECT_EQ(ownership.owner("core"), QString("c1"));
}

class FailedStart : public RequestDispatcherTest, public ::testing::WithParamInterface<const char *>
{};

TEST_P(FailedStart, takesTheOwnershipBack)
{
    ownership.setOwner("core", "c0");
    result = object(GetParam());
    EXPECT_EQ(ask(R"({"action": "start", "process-id": "core"})"), object(GetParam()));
    EXPECT_EQ(ownership.owner("core"), std::nullopt);
    EXPECT_EQ(log.linesWith("owne"), (QStringList{
                                         R"(DEBUG Process "core" will be owned by client "c1")",
                                         R"(DEBUG Process "core" failed to start, removed ownership)",
                                     }));
}

INSTANTIATE_TEST_SUITE_P(Result, FailedStart,
                         ::testing::Values(R"({"status": "error", "error": "x"})", R"({"status": "Started"})",
                                           R"({"status": "starting"})", R"({"status": 1})", R"({"success": false})",
                                           "{}"));

TEST_F(RequestDispatcherTest, startsNothingWhileTheDaemonStops)
{
    stopping = true;
    ownership.setOwner("core", "c0");
    EXPECT_EQ(ask(R"({"action": "start", "process-id": "core"})"), errorAnswer("Daemon is stopping"));
    EXPECT_EQ(calls, QStringList());
    EXPECT_EQ(ownership.owner("core"), QString("c0"));
}

// The tunnel

TEST_F(RequestDispatcherTest, startTunPassesTheWholeRequestOnAndItsResultBackUnchanged)
{
    const char *request = R"({"action": "start-tun", "proxy-port": 10808, "request-id": 1})";
    QJsonObject answer = ask(request);
    EXPECT_EQ(answer.take("request-id").toInt(), 1);
    EXPECT_EQ(answer, result);
    EXPECT_EQ(calls, QStringList{"start tun " + compact(object(request))});
}

TEST_F(RequestDispatcherTest, startsNoTunnelWhileTheDaemonStops)
{
    stopping = true;
    EXPECT_EQ(ask(R"({"action": "start-tun"})"), errorAnswer("Daemon is stopping"));
    EXPECT_EQ(calls, QStringList());
}

TEST_F(RequestDispatcherTest, stopTunIsLoggedWithItsClient)
{
    stopping = true; // which is no reason to refuse
    EXPECT_EQ(ask(R"({"action": "stop-tun"})"), result);
    EXPECT_EQ(calls, QStringList{"stop tun"});
    EXPECT_EQ(log.linesWith("WARNING"), QStringList{R"(WARNING Explicit stop-tun request from client "c1")"});
}

TEST_F(RequestDispatcherTest, tunStatusPassesItsResultBackUnchanged)
{
    EXPECT_EQ(ask(R"({"action": "tun-status"})"), result);
    EXPECT_EQ(calls, QStringList{"tun status"});
}

TEST_F(RequestDispatcherTest, flushDnsCacheAlwaysSucceeds)
{
    works = false;
    EXPECT_EQ(ask(R"({"action": "flush-dns-cache"})"), successAnswer);
    EXPECT_EQ(calls, QStringList{"flush"});
}

TEST_F(RequestDispatcherTest, resetConnectionsAlwaysSucceeds)
{
    works = false;
    EXPECT_EQ(ask(R"({"action": "reset-connections"})"), successAnswer);
    EXPECT_EQ(calls, QStringList{"reset"});
}

// The hello

class EmptyLogPath : public RequestDispatcherTest, public ::testing::WithParamInterface<const char *>
{};

TEST_P(EmptyLogPath, isRefusedAndTheVersionIsNotLookedAt)
{
    EXPECT_EQ(ask(GetParam()), errorAnswer("Log path cannot be empty"));
    waitUntil([this] { return !calls.isEmpty(); }, std::chrono::milliseconds(250));
    EXPECT_EQ(calls, QStringList());
    EXPECT_EQ(log.linesWith("INFO"), QStringList());
}

INSTANTIATE_TEST_SUITE_P(Request, EmptyLogPath,
                         ::testing::Values(R"({"action": "client-hello", "version": "99.0"})",
                                           R"({"action": "client-hello", "log-path": "", "version": "99.0"})",
                                           R"({"action": "client-hello", "log-path": 7, "version": "99.0"})"));

TEST_F(RequestDispatcherTest, helloWithoutAVersionIsAccepted)
{
    EXPECT_EQ(ask(R"({"action": "client-hello", "log-path": "C:\\logs\\ruvod.log"})"), successAnswer);
    EXPECT_EQ(ask(R"({"action": "client-hello", "log-path": "x", "version": ""})"), successAnswer);
    EXPECT_EQ(ask(R"({"action": "client-hello", "log-path": "x", "version": 99})"), successAnswer);
    EXPECT_EQ(calls, (QStringList{R"(log C:\logs\ruvod.log)", "log x", "log x"}));
    EXPECT_EQ(log.linesWith("INFO"), QStringList(3, R"(INFO Client connected: "c1")"));
}

class AcceptedVersion : public RequestDispatcherTest, public ::testing::WithParamInterface<const char *>
{};

TEST_P(AcceptedVersion, isAnsweredWithSuccess)
{
    const QString clientVersion = GetParam();
    EXPECT_EQ(ask({{"action", "client-hello"}, {"log-path", "x"}, {"version", clientVersion}}), successAnswer);
    EXPECT_EQ(log.linesWith("INFO"), QStringList{"INFO Client connected: \"c1\" - Client version: \"" + clientVersion
                                                 + "\" Daemon version: \"2.0.1\""});
    waitUntil([this] { return calls.contains("quit"); }, std::chrono::milliseconds(150));
    EXPECT_EQ(calls, QStringList{"log x"});
}

INSTANTIATE_TEST_SUITE_P(Version, AcceptedVersion,
                         ::testing::Values("2.0.1", "2.0.0", "2.0", "2", "1.10.10", "0.0.1", "2.0.1-beta", "2.0.1rc9",
                                           "02.00.01", "nonsense", "v9", ".9"));

class HigherVersion : public RequestDispatcherTest, public ::testing::WithParamInterface<const char *>
{};

TEST_P(HigherVersion, isAnsweredOnceAndEndsTheDaemonABitLater)
{
    const QString clientVersion = GetParam();
    QElapsedTimer elapsed;
    elapsed.start();
    EXPECT_EQ(
        ask({{"action", "client-hello"}, {"log-path", "x"}, {"version", clientVersion}, {"request-id", 7}}),
        object(
            R"({"status": "restarting", "reason": "Client version is higher than daemon version", "request-id": 7})"));
    EXPECT_EQ(calls, QStringList{"log x"});

    ASSERT_TRUE(waitUntil([this] { return calls.contains("quit"); }));
    EXPECT_GE(elapsed.elapsed(), 99) << "the answer needs time to reach the client";
    EXPECT_LT(elapsed.elapsed(), 2000);
    waitUntil([this] { return calls.size() > 2; }, std::chrono::milliseconds(150));
    EXPECT_EQ(calls, (QStringList{"log x", "quit"}));
    EXPECT_EQ(answers.size(), 1);
    EXPECT_EQ(log.linesWith("INFO"), (QStringList{
                                         "INFO Client connected: \"c1\" - Client version: \"" + clientVersion
                                             + "\" Daemon version: \"2.0.1\"",
                                         "INFO Client version \"" + clientVersion
                                             + "\" is higher than daemon version \"2.0.1\" - restarting daemon",
                                         "INFO Initiating daemon restart due to version mismatch",
                                     }));
}

// As texts, "10.0" and "2.0.10" would come before "2.0.1" and "2.0.9".
INSTANTIATE_TEST_SUITE_P(Version, HigherVersion,
                         ::testing::Values("2.0.2", "2.0.10", "2.1", "3", "10.0", "2.0.2-beta"));

TEST_F(RequestDispatcherTest, theDaemonsVersionIsTheOneThatClientsKnow)
{
    EXPECT_STREQ(version, "2.0.1");
}

TEST_F(RequestDispatcherTest, aDaemonThatEndedBeforeTheRestartIsNotAskedToQuitAgain)
{
    ask(R"({"action": "client-hello", "log-path": "x", "version": "99.0"})");
    dispatcher.reset();
    EXPECT_FALSE(waitUntil([this] { return calls.contains("quit"); }, std::chrono::milliseconds(300)));
}

} // namespace
} // namespace ruvo
