#include "ruvoctl/command_line.h"

#include <gtest/gtest.h>

namespace ruvo {
namespace {

using namespace std::chrono_literals;
using Mode = CommandLine::Mode;

CommandLine parse(const QStringList &words)
{
    const std::expected<CommandLine, QString> line = parseCommandLine(QStringList("ruvoctl.exe") + words);
    EXPECT_TRUE(line) << qPrintable(line.error());
    return line.value_or(CommandLine());
}

QString errorOf(const QStringList &words)
{
    const std::expected<CommandLine, QString> line = parseCommandLine(QStringList("ruvoctl.exe") + words);
    return line ? QStringLiteral("no error") : line.error();
}

TEST(RuvoctlCommandLine, streamsWhenThereIsNoAction)
{
    const CommandLine line = parse({"--session", "12"});
    EXPECT_EQ(line.mode, Mode::Stream);
    EXPECT_EQ(line.sessionId, 12u);
    EXPECT_TRUE(line.heartbeat);
    EXPECT_EQ(line.timeout, 30s);
    EXPECT_EQ(line.linger, 1s);
}

TEST(RuvoctlCommandLine, sendsOneRequestWhenThereIsAnAction)
{
    const CommandLine line = parse({"--session=1", "status", "process-id=core"});
    EXPECT_EQ(line.mode, Mode::OneRequest);
    EXPECT_EQ(line.request, (QJsonObject{{"action", "status"}, {"process-id", "core"}, {"request-id", "ruvoctl"}}));
}

TEST(RuvoctlCommandLine, readsItsOptions)
{
    const CommandLine line = parse({"--no-heartbeat", "--linger", "0", "--timeout=250", "--session", "4294967295"});
    EXPECT_FALSE(line.heartbeat);
    EXPECT_EQ(line.linger, 0ms);
    EXPECT_EQ(line.timeout, 250ms);
    EXPECT_EQ(line.sessionId, 4294967295u);
}

TEST(RuvoctlCommandLine, takesOptionsBehindTheActionToo)
{
    const CommandLine line = parse({"list", "--session", "2", "a=--b"});
    EXPECT_EQ(line.sessionId, 2u);
    EXPECT_EQ(line.request["a"], QJsonValue("--b"));
}

TEST(RuvoctlCommandLine, needsNoSessionForHelpAndVersion)
{
    EXPECT_EQ(parse({"--help"}).mode, Mode::Help);
    EXPECT_EQ(parse({"-h", "--session", "x"}).mode, Mode::Help);
    EXPECT_EQ(parse({"--version"}).mode, Mode::Version);
}

TEST(RuvoctlCommandLine, saysWhatIsWrong)
{
    EXPECT_EQ(errorOf({"list"}), "--session N is missing: which Windows session's pipe?");
    EXPECT_EQ(errorOf({"--session", "one"}), "--session takes a number from 0 to 4294967295, not 'one'");
    EXPECT_EQ(errorOf({"--session", "4294967296"}),
              "--session takes a number from 0 to 4294967295, not '4294967296'");
    EXPECT_EQ(errorOf({"--session", "1", "--timeout", "-1"}),
              "--timeout takes a number from 0 to 86400000, not '-1'");
    EXPECT_EQ(errorOf({"--session", "1", "--linger", ""}), "--linger takes a number from 0 to 86400000, not ''");
    EXPECT_EQ(errorOf({"--session", "1", "list", "word"}), "'word' is neither key=text nor key:=json");
    EXPECT_TRUE(errorOf({"--session"}).contains("session")) << qPrintable(errorOf({"--session"}));
    EXPECT_TRUE(errorOf({"--nothing"}).contains("nothing")) << qPrintable(errorOf({"--nothing"}));
}

TEST(RuvoctlCommandLine, helpNamesEveryOption)
{
    for (const char *option : {"--session", "--timeout", "--linger", "--no-heartbeat", "--help", "--version"})
        EXPECT_TRUE(helpText().contains(option)) << option;
}

} // namespace
} // namespace ruvo
