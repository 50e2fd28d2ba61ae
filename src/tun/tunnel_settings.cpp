#include "tun/tunnel_settings.h"

#include "common/dns_redirect.h"
#include "tun/tunnel_configuration.h"

#include <iterator>

namespace ruvo {

namespace {

/// Public resolvers: what applications ask there directly stays on its way.
constexpr std::uint32_t bypassResolvers[] = {
    publicResolver,
    0x08080404, // 8.8.4.4
    0x01010101, // 1.1.1.1
    0x01000001, // 1.0.0.1
};
/// The proxy cores' own connections would otherwise be sent back to them.
constexpr const wchar_t *alwaysDirect[] = {L"xray.exe", L"sing-box.exe", L"antifilter.exe"};

std::vector<std::wstring> wide(const QStringList &names)
{
    std::vector<std::wstring> converted;
    for (const QString &name : names)
        converted.push_back(name.toStdWString());
    return converted;
}

} // namespace

TunnelSettings settingsOf(const TunnelConfiguration &configuration)
{
    TunnelSettings settings;
    settings.proxyHost = configuration.proxyHost.toStdWString();
    settings.proxyPort = configuration.proxyPort;
    settings.directPort = configuration.directPort;
    settings.proxyIp = configuration.proxyIp;
    settings.bypassIps.assign(std::begin(bypassResolvers), std::end(bypassResolvers));
    settings.bypassIps.insert(settings.bypassIps.end(), configuration.bypassIps.begin(),
                              configuration.bypassIps.end());
    settings.proxyProcesses = wide(configuration.proxyProcesses);
    settings.directProcesses = wide(configuration.directProcesses);
    settings.alwaysDirectProcesses.assign(std::begin(alwaysDirect), std::end(alwaysDirect));
    settings.directProcesses.insert(settings.directProcesses.end(), std::begin(alwaysDirect), std::end(alwaysDirect));
    return settings;
}

} // namespace ruvo
