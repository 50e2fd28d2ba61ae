#include "tun/tunnel_configuration.h"

#include "common/ipv4.h"

#include <QJsonArray>

#include <limits>

namespace ruvo {

namespace {

/// Cut to 16 bits, a number that is no port would be one that nobody meant.
std::uint16_t portOf(const QJsonValue &value, std::uint16_t fallback)
{
    const int number = value.toInt(fallback);
    const bool isPort = number >= 1 && number <= std::numeric_limits<std::uint16_t>::max();
    return isPort ? static_cast<std::uint16_t>(number) : fallback;
}

QStringList textsOf(const QJsonValue &value)
{
    QStringList texts;
    const QJsonArray array = value.toArray();
    for (const QJsonValue &entry : array)
        texts.append(entry.toString());
    return texts;
}

} // namespace

std::expected<TunnelConfiguration, QString> parseTunnelConfiguration(const QJsonObject &config)
{
    TunnelConfiguration parsed;
    parsed.proxyHost = config["proxy-ip"].toString("127.0.0.1");
    parsed.proxyPort = portOf(config["proxy-port"], 10808);
    parsed.directPort = portOf(config["direct-port"], 20808);
    parsed.tunnelIpText = config["tunnel-ip"].toString("10.6.7.1");
    parsed.adapterName = config["adapter-name"].toString("ruvo-default-tun");
    parsed.proxyProcesses = textsOf(config["proxy-processes"]);
    parsed.directProcesses = textsOf(config["direct-processes"]);

    parsed.tunnelIp = parseIpv4(parsed.tunnelIpText);
    if (parsed.tunnelIp == 0)
        return std::unexpected("Invalid tunnel-ip: " + parsed.tunnelIpText);
    parsed.proxyIp = parseIpv4(parsed.proxyHost);
    const QStringList bypassTexts = textsOf(config["bypass-ips"]);
    for (const QString &text : bypassTexts) {
        if (const std::uint32_t address = parseIpv4(text))
            parsed.bypassIps.append(address);
    }
    return parsed;
}

} // namespace ruvo
