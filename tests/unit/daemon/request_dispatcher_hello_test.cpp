#include "unit/daemon/request_dispatcher_fixture.h"

#include "common/version.h"
#include "support/wait_until.h"

#include <QElapsedTimer>

namespace ruvo {
namespace {

using test::waitUntil;

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

// Installers write four numbers: zeros at the end are nothing newer.
INSTANTIATE_TEST_SUITE_P(Version, AcceptedVersion,
                         ::testing::Values("2.0.1", "2.0.0", "2.0", "2", "1.10.10", "0.0.1", "2.0.1-beta", "2.0.1rc9",
                                           "02.00.01", "2.0.1.0", "2.0.1.0.0", "2.0.0.9", "nonsense", "v9", ".9"));

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
                         ::testing::Values("2.0.2", "2.0.10", "2.1", "3", "10.0", "2.0.2-beta", "2.0.1.1",
                                           "2.0.1.0.1"));

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
