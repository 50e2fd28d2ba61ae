#include "tun/tunnel_configuration.h"

#include <QJsonArray>

#include <gtest/gtest.h>

namespace ruvo {
namespace {

TEST(TunnelConfiguration, anEmptyObjectGivesTheDefaults)
{
    const auto parsed = parseTunnelConfiguration({});
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->proxyHost, "127.0.0.1");
    EXPECT_EQ(parsed->proxyIp, 0x7F000001u);
    EXPECT_EQ(parsed->proxyPort, 10808);
    EXPECT_EQ(parsed->directPort, 20808);
    EXPECT_EQ(parsed->tunnelIpText, "10.6.7.1");
    EXPECT_EQ(parsed->tunnelIp, 0x0A060701u);
    EXPECT_EQ(parsed->adapterName, "ruvo-default-tun");
    EXPECT_TRUE(parsed->bypassIps.isEmpty());
    EXPECT_TRUE(parsed->proxyProcesses.isEmpty());
    EXPECT_TRUE(parsed->directProcesses.isEmpty());
}

TEST(TunnelConfiguration, takesWhatTheClientSays)
{
    const auto parsed = parseTunnelConfiguration({
        {"proxy-ip", "192.0.2.9"},
        {"proxy-port", 1},
        {"direct-port", 2},
        {"tunnel-ip", "10.0.0.1"},
        {"adapter-name", "my tun"},
        {"bypass-ips", QJsonArray{"1.2.3.4", "5.6.7.8"}},
        {"proxy-processes", QJsonArray{"a.exe"}},
        {"direct-processes", QJsonArray{"b.exe", "c.exe"}},
    });
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->proxyHost, "192.0.2.9");
    EXPECT_EQ(parsed->proxyIp, 0xC0000209u);
    EXPECT_EQ(parsed->proxyPort, 1);
    EXPECT_EQ(parsed->directPort, 2);
    EXPECT_EQ(parsed->tunnelIp, 0x0A000001u);
    EXPECT_EQ(parsed->adapterName, "my tun");
    EXPECT_EQ(parsed->bypassIps, (QList<std::uint32_t>{0x01020304, 0x05060708}));
    EXPECT_EQ(parsed->proxyProcesses, QStringList{"a.exe"});
    EXPECT_EQ(parsed->directProcesses, (QStringList{"b.exe", "c.exe"}));
}

TEST(TunnelConfiguration, refusesATunnelAddressThatIsNone)
{
    for (const QString text : {"10.6.7", "10.6.7.256", "0.0.0.0", "", "tun", "10.6.7.1.2"}) {
        const auto parsed = parseTunnelConfiguration({{"tunnel-ip", text}});
        ASSERT_FALSE(parsed) << text.toStdString();
        EXPECT_EQ(parsed.error(), "Invalid tunnel-ip: " + text);
    }
}

TEST(TunnelConfiguration, aProxyHostThatIsNoAddressIsKeptWithoutOne)
{
    const auto parsed = parseTunnelConfiguration({{"proxy-ip", "proxy.example"}});
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->proxyHost, "proxy.example");
    EXPECT_EQ(parsed->proxyIp, 0u);
}

TEST(TunnelConfiguration, skipsBypassEntriesThatAreNoAddresses)
{
    const auto parsed =
        parseTunnelConfiguration({{"bypass-ips", QJsonArray{"x", "1.2.3.4", 7, "1.2.3", QJsonValue()}}});
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->bypassIps, QList<std::uint32_t>{0x01020304});
}

TEST(TunnelConfiguration, aKeyOfAnotherTypeHasItsDefault)
{
    const auto parsed = parseTunnelConfiguration({
        {"proxy-ip", 7},
        {"proxy-port", "80"},
        {"tunnel-ip", QJsonArray()},
        {"adapter-name", true},
        {"bypass-ips", "1.2.3.4"},
    });
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->proxyHost, "127.0.0.1");
    EXPECT_EQ(parsed->proxyPort, 10808);
    EXPECT_EQ(parsed->tunnelIp, 0x0A060701u);
    EXPECT_EQ(parsed->adapterName, "ruvo-default-tun");
    EXPECT_TRUE(parsed->bypassIps.isEmpty());
}

TEST(TunnelConfiguration, aPortThatIsNoneHasItsDefault)
{
    for (const double number : {0.0, -1.0, -55298.0, 65536.0, 70000.0, 76344.0, 1e10, 1.5}) {
        const auto parsed = parseTunnelConfiguration({{"proxy-port", number}, {"direct-port", number}});
        ASSERT_TRUE(parsed) << number;
        EXPECT_EQ(parsed->proxyPort, 10808) << number;
        EXPECT_EQ(parsed->directPort, 20808) << number;
    }
    for (const int port : {1, 65535}) {
        const auto parsed = parseTunnelConfiguration({{"proxy-port", port}, {"direct-port", port}});
        ASSERT_TRUE(parsed) << port;
        EXPECT_EQ(parsed->proxyPort, port);
        EXPECT_EQ(parsed->directPort, port);
    }
}

} // namespace
} // namespace ruvo
