#include "tun/upstream_choice.h"

#include "support/log_capture.h"

#include <gtest/gtest.h>

namespace ruvo {
namespace {

constexpr std::uint16_t proxyPort = 1001;
constexpr std::uint16_t directPort = 2002;
constexpr std::uint32_t example = 0x5DB8D822;
constexpr std::uint32_t bypassed = 0xC0000201;

UpstreamChoice filledChoice()
{
    UpstreamChoice choice;
    choice.setPorts(proxyPort, directPort);
    choice.addBypassIp(bypassed);
    choice.addProxyProcess(L"Browser.exe");
    choice.addDirectProcess(L"xray.exe");
    choice.addDirectProcess(L"Game.EXE");
    return choice;
}

struct Case
{
    const char *what;
    const wchar_t *path;
    std::uint32_t dstIp;
    std::uint16_t dstPort;
    UpstreamDecision expected;
};

constexpr UpstreamDecision direct{.port = directPort, .isDirect = true};
constexpr UpstreamDecision proxied{.port = proxyPort, .isDirect = false};

const Case cases[] = {
    {"DNS, whoever asks", L"C:\\Browser.exe", example, 53, direct},
    {"DNS without an owner", L"", example, 53, direct},
    {"a bypass address", L"C:\\Browser.exe", bypassed, 443, direct},
    {"a bypass address without an owner", L"", bypassed, 443, direct},
    {"no owner", L"", example, 443, proxied},
    {"no owner and IPv6", L"", 0, 443, proxied},
    {"a direct process", L"C:\\Program Files\\xray.exe", example, 443, direct},
    {"a direct process in capitals", L"C:\\Program Files\\XRAY.EXE", example, 443, direct},
    {"a direct process listed in capitals", L"C:\\game.exe", example, 443, direct},
    {"a path with slashes", L"C:/games/game.exe", example, 443, direct},
    {"a path with both", L"C:/games\\deep/game.exe", example, 443, direct},
    {"a bare name", L"game.exe", example, 443, direct},
    {"a proxy process", L"C:\\browser.exe", example, 443, proxied},
    {"a process on no list", L"C:\\mail.exe", example, 443, proxied},
    {"a name that only ends in a listed one", L"C:\\notxray.exe", example, 443, proxied},
    {"a folder of a listed name", L"C:\\xray.exe\\mail.exe", example, 443, proxied},
    {"a path that ends in a separator", L"C:\\xray.exe\\", example, 443, proxied},
};

TEST(UpstreamChoice, takesTheInboundThatTheRulesGive)
{
    const UpstreamChoice choice = filledChoice();
    for (const Case &one : cases) {
        EXPECT_EQ(choice.decide(one.path, one.dstIp, one.dstPort), one.expected) << one.what;
        EXPECT_EQ(choice.chooseUpstreamPort(one.path, one.dstIp, one.dstPort), one.expected.port) << one.what;
    }
}

// What is compared with the direct port would take everything for direct.
TEST(UpstreamChoice, tellsDirectFromProxiedWhereBothInboundsAreOne)
{
    UpstreamChoice choice = filledChoice();
    choice.setPorts(directPort, directPort);
    for (const Case &one : cases) {
        const UpstreamDecision decision = choice.decide(one.path, one.dstIp, one.dstPort);
        EXPECT_EQ(decision.port, directPort) << one.what;
        EXPECT_EQ(decision.isDirect, one.expected.isDirect) << one.what;
    }
}

TEST(UpstreamChoice, tellsWhoAlwaysGoesDirectFromWhoseConnectionsDo)
{
    UpstreamChoice choice = filledChoice();
    choice.addAlwaysDirectProcess(L"Core.exe");
    EXPECT_TRUE(choice.isAlwaysDirect(L"C:\\Program Files\\CORE.EXE"));
    EXPECT_TRUE(choice.isAlwaysDirect(L"core.exe"));
    EXPECT_FALSE(choice.isAlwaysDirect(L"C:\\core.exe\\game.exe"));
    EXPECT_FALSE(choice.isAlwaysDirect(L"C:\\game.exe"));
    EXPECT_FALSE(choice.isAlwaysDirect(L"[PID:1234]"));
    EXPECT_FALSE(choice.isAlwaysDirect({}));
}

TEST(UpstreamChoice, startsWithTheUsualPorts)
{
    const UpstreamChoice choice;
    EXPECT_EQ(choice.chooseUpstreamPort({}, example, 443), 10808);
    EXPECT_EQ(choice.chooseUpstreamPort({}, example, 53), 20808);
}

TEST(UpstreamChoice, keepsBypassAddressesOnceAndInOrder)
{
    UpstreamChoice choice;
    choice.addBypassIp(3);
    choice.addBypassIp(1);
    choice.addBypassIp(3);
    EXPECT_EQ(choice.bypassIps(), (std::set<std::uint32_t>{1, 3}));
}

TEST(UpstreamChoice, saysWhatWasListedAndWhatABypassAddressDid)
{
    const test::LogCapture log;
    const UpstreamChoice choice = filledChoice();
    choice.chooseUpstreamPort({}, bypassed, 443);
    EXPECT_EQ(log.lines(), (QStringList{
                               "DEBUG Bypass IP: \"192.0.2.1\"",
                               "DEBUG Proxy process: \"Browser.exe\" (port 1001",
                               "DEBUG Direct process: \"xray.exe\" (port 2002",
                               "DEBUG Direct process: \"Game.EXE\" (port 2002",
                               "WARNING [PORT] destIp \"192.0.2.1\" in bypassIps -> direct port 2002",
                           }));
}

} // namespace
} // namespace ruvo
