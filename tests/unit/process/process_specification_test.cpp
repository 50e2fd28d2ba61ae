#include "process/process_specification.h"

#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>

namespace ruvo {
namespace {

QJsonObject json(const QByteArray &text)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(text, &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << text.toStdString();
    return document.object();
}

ProcessInfo parsed(const QByteArray &spec)
{
    ProcessInfo info;
    parseProcessSpec(json(spec), info);
    return info;
}

/// What `key` is, whatever else is missing: as the only key of a process specification.
ProcessInfo parsedWith(const char *key, const char *value)
{
    return parsed(QByteArray("{\"") + key + "\": " + value + "}");
}

/// Values that are no text.
constexpr const char *notTexts[] = {"null", "true", "7", "[\"a\"]", "{\"a\": \"b\"}"};

TEST(ValidateProcessSpec, complainsOfTheProcessIdFirst)
{
    EXPECT_EQ(validateProcessSpec(json("{}")), "Missing or empty process-id");
    EXPECT_EQ(validateProcessSpec(json(R"({"executable": ""})")), "Missing or empty process-id");
}

TEST(ValidateProcessSpec, complainsOfAProcessIdThatIsEmptyOrNoText)
{
    EXPECT_EQ(validateProcessSpec(json(R"({"process-id": "", "executable": "a.exe"})")),
              "Missing or empty process-id");
    for (const char *value : notTexts) {
        EXPECT_EQ(validateProcessSpec(json(QByteArray("{\"executable\": \"a.exe\", \"process-id\": ") + value + "}")),
                  "Missing or empty process-id")
            << value;
    }
}

TEST(ValidateProcessSpec, complainsOfAnExecutableThatIsMissingEmptyOrNoText)
{
    EXPECT_EQ(validateProcessSpec(json(R"({"process-id": "core"})")), "Missing or empty executable");
    EXPECT_EQ(validateProcessSpec(json(R"({"process-id": "core", "executable": ""})")),
              "Missing or empty executable");
    for (const char *value : notTexts) {
        EXPECT_EQ(validateProcessSpec(json(QByteArray("{\"process-id\": \"core\", \"executable\": ") + value + "}")),
                  "Missing or empty executable")
            << value;
    }
}

TEST(ValidateProcessSpec, acceptsWhatHasBothWhateverTheOtherKeysHold)
{
    EXPECT_EQ(validateProcessSpec(json(R"({"process-id": "core", "executable": "a.exe"})")), std::nullopt);
    EXPECT_EQ(validateProcessSpec(json(R"({"process-id": " ", "executable": " ", "arguments": 7,
                                           "auto-restart": "yes", "tun-dns-override": []})")),
              std::nullopt);
}

TEST(ValidateProcessSpec, takesKeysCaseSensitively)
{
    EXPECT_EQ(validateProcessSpec(json(R"({"Process-Id": "core", "executable": "a.exe"})")),
              "Missing or empty process-id");
}

TEST(ParseProcessSpec, takesEveryKey)
{
    const ProcessInfo info = parsed(R"({
        "process-id": "core",
        "executable": "C:\\Program Files\\core.exe",
        "arguments": ["run", "-c", "config.json"],
        "working-dir": "C:\\Program Files",
        "environment": {"A": "1", "B": 2},
        "privileges": "system",
        "auto-restart": true,
        "max-restart-attempts": 5,
        "restart-delay-ms": 250,
        "session-id": 2
    })");
    EXPECT_EQ(info.processId, "core");
    EXPECT_EQ(info.executable, "C:\\Program Files\\core.exe");
    EXPECT_EQ(info.arguments, QStringList({"run", "-c", "config.json"}));
    EXPECT_EQ(info.workingDirectory, "C:\\Program Files");
    EXPECT_EQ(info.environment, (QJsonObject{{"A", "1"}, {"B", 2}}));
    EXPECT_EQ(info.privileges, "system");
    EXPECT_TRUE(info.autoRestart);
    EXPECT_EQ(info.maxRestartAttempts, 5);
    EXPECT_EQ(info.restartDelayMs, 250);
    EXPECT_EQ(info.sessionId, 2u);
}

TEST(ParseProcessSpec, givesWhatIsAbsentItsDefault)
{
    const ProcessInfo info = parsed("{}");
    EXPECT_EQ(info.processId, "");
    EXPECT_EQ(info.executable, "");
    EXPECT_TRUE(info.arguments.isEmpty());
    EXPECT_EQ(info.workingDirectory, "");
    EXPECT_TRUE(info.environment.isEmpty());
    EXPECT_EQ(info.privileges, "");
    EXPECT_FALSE(info.autoRestart);
    EXPECT_EQ(info.maxRestartAttempts, 3);
    EXPECT_EQ(info.restartDelayMs, 1000);
    EXPECT_EQ(info.sessionId, 0u);
}

TEST(ParseProcessSpec, givesTextsOfAnotherTypeTheirDefault)
{
    for (const char *value : notTexts) {
        EXPECT_EQ(parsedWith("executable", value).executable, "") << value;
        EXPECT_EQ(parsedWith("working-dir", value).workingDirectory, "") << value;
        EXPECT_EQ(parsedWith("privileges", value).privileges, "") << value;
    }
}

TEST(ParseProcessSpec, givesNumbersOfAnotherTypeTheirDefault)
{
    // A number that is no whole number, or too large for one, is none either.
    for (const char *value : {"null", "true", "\"5\"", "[5]", "{}", "2.5", "1e10"}) {
        EXPECT_EQ(parsedWith("max-restart-attempts", value).maxRestartAttempts, 3) << value;
        EXPECT_EQ(parsedWith("restart-delay-ms", value).restartDelayMs, 1000) << value;
        EXPECT_EQ(parsedWith("session-id", value).sessionId, 0u) << value;
    }
}

TEST(ParseProcessSpec, restartsOnlyWhereTheSettingIsTrueItself)
{
    EXPECT_TRUE(parsedWith("auto-restart", "true").autoRestart);
    for (const char *value : {"false", "null", "1", "\"true\"", "[true]", "{}"})
        EXPECT_FALSE(parsedWith("auto-restart", value).autoRestart) << value;
}

TEST(ParseProcessSpec, takesNegativeNumbersAsTheyAre)
{
    EXPECT_EQ(parsedWith("max-restart-attempts", "-1").maxRestartAttempts, -1);
    EXPECT_EQ(parsedWith("restart-delay-ms", "-5").restartDelayMs, -5);
    EXPECT_EQ(parsedWith("session-id", "-1").sessionId, 0xFFFFFFFFu);
}

TEST(ParseProcessSpec, takesNoArgumentsFromWhatIsNoArray)
{
    for (const char *value : {"\"run\"", "7", "null", "{\"0\": \"run\"}"})
        EXPECT_TRUE(parsedWith("arguments", value).arguments.isEmpty()) << value;
}

TEST(ParseProcessSpec, makesEmptyTextsOfArgumentsThatAreNoTexts)
{
    EXPECT_EQ(parsedWith("arguments", R"(["a", 1, null, true, ["b"], {"c": "d"}, "", "e"])").arguments,
              QStringList({"a", "", "", "", "", "", "", "e"}));
}

TEST(ParseProcessSpec, takesNoEnvironmentFromWhatIsNoObject)
{
    for (const char *value : {"\"A=1\"", "7", "null", "[\"A=1\"]"})
        EXPECT_TRUE(parsedWith("environment", value).environment.isEmpty()) << value;
}

TEST(ParseProcessSpec, replacesEarlierSettingsAndKeepsTheRunAndItsRestarts)
{
    ProcessInfo info;
    parseProcessSpec(json(R"({"process-id": "core", "executable": "a.exe", "arguments": ["x"], "working-dir": "d",
                              "auto-restart": true, "max-restart-attempts": 9, "session-id": 4})"),
                     info);
    info.restartAttempts = 2;
    info.pid = 77;
    info.state = QProcess::Running;
    info.startTime = QDateTime::fromSecsSinceEpoch(1000);
    parseProcessSpec(json(R"({"process-id": "core", "executable": "b.exe"})"), info);

    EXPECT_EQ(info.executable, "b.exe");
    EXPECT_TRUE(info.arguments.isEmpty());
    EXPECT_EQ(info.workingDirectory, "");
    EXPECT_FALSE(info.autoRestart);
    EXPECT_EQ(info.maxRestartAttempts, 3);
    EXPECT_EQ(info.sessionId, 0u);
    EXPECT_EQ(info.restartAttempts, 2);
    EXPECT_EQ(info.pid, 77);
    EXPECT_EQ(info.state, QProcess::Running);
    EXPECT_EQ(info.startTime, QDateTime::fromSecsSinceEpoch(1000));
}

TEST(ParseProcessSpec, logsTheSessionThatWasAskedFor)
{
    const test::LogCapture log;
    parsedWith("session-id", "3");
    EXPECT_EQ(log.lines(), QStringList({"DEBUG [ProcessManager] Will create process in session 3"}));
}

TEST(ProcessInfo, hasNothingRunningAndNoRestartsAtFirst)
{
    const ProcessInfo info;
    EXPECT_EQ(info.state, 0);
    EXPECT_EQ(info.pid, -1);
    EXPECT_TRUE(info.startTime.isNull());
    EXPECT_FALSE(info.autoRestart);
    EXPECT_EQ(info.maxRestartAttempts, 3);
    EXPECT_EQ(info.restartAttempts, 0);
    EXPECT_EQ(info.restartDelayMs, 1000);
    EXPECT_EQ(info.sessionId, 0u);
    EXPECT_EQ(info.processHandle, nullptr);
    EXPECT_EQ(info.threadHandle, nullptr);
    EXPECT_EQ(info.stdinWrite, nullptr);
    EXPECT_EQ(info.stdoutRead, nullptr);
    EXPECT_EQ(info.stderrRead, nullptr);
}

TEST(TunDnsOverride, isThereOnlyWithAnAddressAndAnInterface)
{
    const auto dns = tunDnsOverride(json(R"({"tun-dns-override": {"address": "172.19.0.2", "iface": "ruvo-tun"}})"));
    ASSERT_TRUE(dns);
    EXPECT_EQ(dns->address, "172.19.0.2");
    EXPECT_EQ(dns->interfaceName, "ruvo-tun");

    for (const char *spec : {
             R"({})",
             R"({"tun-dns-override": {}})",
             R"({"tun-dns-override": {"address": "172.19.0.2"}})",
             R"({"tun-dns-override": {"iface": "ruvo-tun"}})",
             R"({"tun-dns-override": {"address": "", "iface": "ruvo-tun"}})",
             R"({"tun-dns-override": {"address": "172.19.0.2", "iface": ""}})",
             R"({"tun-dns-override": {"address": 1, "iface": "ruvo-tun"}})",
             R"({"tun-dns-override": {"address": "172.19.0.2", "iface": null}})",
             R"({"tun-dns-override": ["172.19.0.2", "ruvo-tun"]})",
             R"({"tun-dns-override": "172.19.0.2"})",
         }) {
        EXPECT_FALSE(tunDnsOverride(json(spec))) << spec;
    }
}

TEST(TunDnsOverride, isNotLookedAtMoreClosely)
{
    const auto dns = tunDnsOverride(json(R"({"tun-dns-override": {"address": "no address, at all", "iface": " "}})"));
    ASSERT_TRUE(dns);
    EXPECT_EQ(dns->address, "no address, at all");
    EXPECT_EQ(dns->interfaceName, " ");
}

ProcessInfo program(const QString &executable, const QStringList &arguments = {})
{
    ProcessInfo info;
    info.executable = executable;
    info.arguments = arguments;
    return info;
}

TEST(CommandLine, putsEveryTokenBetweenQuotes)
{
    EXPECT_EQ(commandLine(program("core.exe")), R"("core.exe")");
    EXPECT_EQ(commandLine(program("core.exe", {"run", "-c", "a.json"})), R"("core.exe" "run" "-c" "a.json")");
    EXPECT_EQ(commandLine(program("core.exe", {""})), R"("core.exe" "")");
}

TEST(CommandLine, keepsSpaces)
{
    EXPECT_EQ(commandLine(program(R"(C:\Program Files\core.exe)", {"two words"})),
              R"("C:\Program Files\core.exe" "two words")");
}

TEST(CommandLine, escapesNothing)
{
    EXPECT_EQ(commandLine(program("core.exe", {R"(say "hi")"})), R"("core.exe" "say "hi"")");
    EXPECT_EQ(commandLine(program("core.exe", {R"(C:\folder\)"})), R"("core.exe" "C:\folder\")");
}

TEST(CommandLine, takesPlaceMarkersForPlainText)
{
    EXPECT_EQ(commandLine(program(R"(C:\%1\core%2.exe)", {"%1", "100%", "%L1 %99"})),
              R"("C:\%1\core%2.exe" "%1" "100%" "%L1 %99")");
}

} // namespace
} // namespace ruvo
