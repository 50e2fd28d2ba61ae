#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace ruvo {

struct TunnelConfiguration;

/// What a tunnel is given before it starts. Addresses and ports in host order.
struct TunnelSettings
{
    std::wstring proxyHost = L"127.0.0.1";
    std::uint16_t proxyPort = 10808;
    /// Kept beside the proxy port; nothing uses it.
    std::uint16_t secondPort = 10809;
    std::uint16_t directPort = 20808;
    /// The proxy server's own address, which has its way outside the tunnel; 0 if the host is no address.
    std::uint32_t proxyIp = 0;
    /// Where connections always go direct to.
    std::vector<std::uint32_t> bypassIps = {};
    /// Executable names, compared without regard to case.
    std::vector<std::wstring> proxyProcesses = {};
    std::vector<std::wstring> directProcesses = {};
    /// The ones whose datagrams go direct as well. Each stands among the direct processes too.
    std::vector<std::wstring> alwaysDirectProcesses = {};
};

/// What a client asked for, with what always goes direct: public resolvers, and the proxy cores' own processes.
TunnelSettings settingsOf(const TunnelConfiguration &configuration);

} // namespace ruvo
