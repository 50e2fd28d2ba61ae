#include "ruvoctl/request.h"

#include "ruvoctl/exit_status.h"

#include <QJsonArray>

#include <gtest/gtest.h>

namespace ruvo {
namespace {

QString errorOf(const QStringList &fields)
{
    const std::expected<QJsonObject, QString> request = buildRequest("start", fields);
    return request ? QStringLiteral("no error") : request.error();
}

TEST(BuildRequest, hasTheActionAndARequestId)
{
    EXPECT_EQ(buildRequest("tun-status", {}), (QJsonObject{{"action", "tun-status"}, {"request-id", "ruvoctl"}}));
}

TEST(BuildRequest, keepsTextAsText)
{
    const QJsonObject request = buildRequest("start", {"a=7", "b=true", "c=", "d=x=y:=z", "é=ü"}).value();
    EXPECT_EQ(request["a"], QJsonValue("7"));
    EXPECT_EQ(request["b"], QJsonValue("true"));
    EXPECT_EQ(request["c"], QJsonValue(""));
    EXPECT_EQ(request["d"], QJsonValue("x=y:=z"));
    EXPECT_EQ(request["é"], QJsonValue("ü"));
}

TEST(BuildRequest, takesAnyJsonValueAfterColonEquals)
{
    const QJsonObject request = buildRequest("start", {"a:=7", "b:=true", "c:=null", "d:=[1,\"x=y\"]",
                                                       "e:={\"f\":2.5}", "g:=\"text\"", "h:=9007199254740993"})
                                    .value();
    EXPECT_EQ(request["a"], QJsonValue(7));
    EXPECT_EQ(request["b"], QJsonValue(true));
    EXPECT_EQ(request["c"], QJsonValue(QJsonValue::Null));
    EXPECT_EQ(request["d"], QJsonValue(QJsonArray{1, "x=y"}));
    EXPECT_EQ(request["e"], QJsonValue(QJsonObject{{"f", 2.5}}));
    EXPECT_EQ(request["g"], QJsonValue("text"));
    EXPECT_EQ(request["h"].toInteger(), 9007199254740993);
}

TEST(BuildRequest, keepsAColonThatIsNotPartOfTheSign)
{
    EXPECT_EQ(buildRequest("start", {"a:b=c"}).value()["a:b"], QJsonValue("c"));
    EXPECT_EQ(buildRequest("start", {"a=:=1"}).value()["a"], QJsonValue(":=1"));
}

TEST(BuildRequest, takesARequestIdOfTheUser)
{
    EXPECT_EQ(buildRequest("list", {"request-id:=7"}).value()["request-id"], QJsonValue(7));
}

TEST(BuildRequest, namesTheFieldThatIsWrong)
{
    EXPECT_EQ(errorOf({"a=1", "word"}), "'word' is neither key=text nor key:=json");
    EXPECT_EQ(errorOf({"=text"}), "'=text' is neither key=text nor key:=json");
    EXPECT_EQ(errorOf({":=1"}), "':=1' is neither key=text nor key:=json");
    EXPECT_TRUE(errorOf({"a:=[1"}).startsWith("the value of 'a:=[1' is no JSON: ")) << qPrintable(errorOf({"a:=[1"}));
    EXPECT_EQ(errorOf({"a:=1,2"}), "the value of 'a:=1,2' is no JSON: not exactly one value");
    EXPECT_EQ(errorOf({"a:="}), "the value of 'a:=' is no JSON: not exactly one value");
    EXPECT_EQ(errorOf({"a=1", "a=2"}), "'a=2' gives \"a\" a second time");
    EXPECT_EQ(errorOf({"action=stop"}), "'action=stop' gives \"action\" a second time");
}

TEST(RequestFromLine, keepsTheTextAsItWasTyped)
{
    EXPECT_EQ(requestFromLine("  { \"n\": 1.50, \"n2\": 123456789012345678901234567890 }\t"),
              QByteArray("{ \"n\": 1.50, \"n2\": 123456789012345678901234567890 }"));
}

TEST(RequestFromLine, refusesWhatIsNoObject)
{
    for (const char *line : {"", "7", "\"text\"", "[]", "[{}]", "{", "{} {}", "{\"a\":\"\xFF\"}"})
        EXPECT_FALSE(requestFromLine(line)) << line;
    EXPECT_EQ(requestFromLine("[1]").error(), "an array");
    const QString error = requestFromLine("  {\"a\" 7}").error();
    EXPECT_TRUE(error.endsWith(" at byte 8")) << qPrintable(error);
}

TEST(IsAnswerTo, comparesTheValueAndNotItsText)
{
    EXPECT_TRUE(isAnswerTo(7, {{"status", "success"}, {"request-id", 7}}));
    EXPECT_FALSE(isAnswerTo(7, {{"status", "success"}, {"request-id", "7"}}));
    EXPECT_FALSE(isAnswerTo(7, {{"status", "success"}}));
    EXPECT_TRUE(isAnswerTo(QJsonValue::Null, {{"request-id", QJsonValue::Null}}));
    EXPECT_FALSE(isAnswerTo(QJsonValue::Null, {{"event", "connected"}}));
}

TEST(ExitStatusOf, failsForNothingButAnError)
{
    EXPECT_EQ(exitStatusOf({{"status", "error"}, {"error", "Unknown action: x"}}), ExitError);
    for (const char *status : {"success", "started", "stopping", "killed", "restarting"})
        EXPECT_EQ(exitStatusOf({{"status", status}}), ExitSuccess) << status;
    // The tunnel's answers have no status.
    EXPECT_EQ(exitStatusOf({{"success", false}, {"error", "TUN not running"}}), ExitError);
    EXPECT_EQ(exitStatusOf({{"success", true}}), ExitSuccess);
    EXPECT_EQ(exitStatusOf({{"running", false}, {"adapter-name", ""}}), ExitSuccess);
}

} // namespace
} // namespace ruvo
