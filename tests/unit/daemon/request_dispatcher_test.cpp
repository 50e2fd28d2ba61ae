#include "unit/daemon/request_dispatcher_fixture.h"

namespace ruvo {
namespace {

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

} // namespace
} // namespace ruvo
