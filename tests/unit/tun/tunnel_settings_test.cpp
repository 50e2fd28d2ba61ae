#include "tun/tunnel_settings.h"

#include "tun/tunnel_configuration.h"

#include <gtest/gtest.h>

namespace ruvo {
namespace {

TEST(TunnelSettings, startWithTheUsualPorts)
{
    const TunnelSettings settings;
    EXPECT_EQ(settings.proxyHost, L"127.0.0.1");
    EXPECT_EQ(settings.proxyPort, 10808);
    EXPECT_EQ(settings.secondPort, 10809);
    EXPECT_EQ(settings.directPort, 20808);
    EXPECT_EQ(settings.proxyIp, 0u);
}

TEST(TunnelSettings, takeWhatTheClientAskedFor)
{
    TunnelConfiguration configuration;
    configuration.proxyHost = "192.0.2.9";
    configuration.proxyIp = 0xC0000209;
    configuration.proxyPort = 1001;
    configuration.directPort = 2002;
    configuration.proxyProcesses = QStringList{"mail.exe"};
    const TunnelSettings settings = settingsOf(configuration);
    EXPECT_EQ(settings.proxyHost, L"192.0.2.9");
    EXPECT_EQ(settings.proxyIp, 0xC0000209u);
    EXPECT_EQ(settings.proxyPort, 1001);
    EXPECT_EQ(settings.secondPort, 10809);
    EXPECT_EQ(settings.directPort, 2002);
    EXPECT_EQ(settings.proxyProcesses, std::vector<std::wstring>{L"mail.exe"});
}

// Public resolvers come before configured addresses, the cores' processes behind configured ones.
TEST(TunnelSettings, alwaysSendResolversAndCoresDirect)
{
    TunnelConfiguration configuration;
    const std::vector<std::uint32_t> resolvers = {0x08080808, 0x08080404, 0x01010101, 0x01000001};
    const std::vector<std::wstring> cores = {L"xray.exe", L"sing-box.exe", L"antifilter.exe"};
    EXPECT_EQ(settingsOf(configuration).bypassIps, resolvers);
    EXPECT_EQ(settingsOf(configuration).directProcesses, cores);
    EXPECT_EQ(settingsOf(configuration).alwaysDirectProcesses, cores);

    configuration.bypassIps = {0xCB00714D};
    configuration.directProcesses = QStringList{"game.exe"};
    const TunnelSettings settings = settingsOf(configuration);
    EXPECT_EQ(settings.bypassIps,
              (std::vector<std::uint32_t>{0x08080808, 0x08080404, 0x01010101, 0x01000001, 0xCB00714D}));
    EXPECT_EQ(settings.directProcesses,
              (std::vector<std::wstring>{L"game.exe", L"xray.exe", L"sing-box.exe", L"antifilter.exe"}));
    EXPECT_EQ(settings.alwaysDirectProcesses, cores) << "what a client lists is for connections";
}

} // namespace
} // namespace ruvo
