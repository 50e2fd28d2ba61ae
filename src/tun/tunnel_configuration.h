#pragma once

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

#include <cstdint>
#include <expected>

namespace ruvo {

/// What a client's "start-tun" asks for. Addresses and ports are in host order.
struct TunnelConfiguration
{
    QString proxyHost;
    std::uint32_t proxyIp = 0; // 0: the proxy host is no dotted address
    std::uint16_t proxyPort = 0;
    std::uint16_t directPort = 0;
    QString tunnelIpText;
    std::uint32_t tunnelIp = 0;
    QString adapterName;
    QList<std::uint32_t> bypassIps;
    QStringList proxyProcesses;
    QStringList directProcesses;
};

/// Every key may be missing. One of another type, and a port outside 1 to 65535, has its default. The error is the
/// text for the client.
std::expected<TunnelConfiguration, QString> parseTunnelConfiguration(const QJsonObject &config);

} // namespace ruvo
