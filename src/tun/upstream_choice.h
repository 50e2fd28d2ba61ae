#pragma once

#include "common/upstream_decision.h"

#include <cstdint>
#include <set>
#include <string>

namespace ruvo {

/// Which local inbound a new connection or flow is relayed to: the proxy port, or the direct port for what must not
/// be proxied.
///
/// Filled before the tunnel starts and only read from then on, from any thread.
class UpstreamChoice
{
public:
    /// Both in host order.
    void setPorts(std::uint16_t proxyPort, std::uint16_t directPort);

    /// Always direct. Host order.
    void addBypassIp(std::uint32_t address);
    /// Executable names; compared without regard to case.
    void addProxyProcess(const std::wstring &name);
    void addDirectProcess(const std::wstring &name);
    void addAlwaysDirectProcess(const std::wstring &name);
    const std::set<std::uint32_t> &bypassIps() const { return m_bypassIps; }

    /// Where a connection or flow goes, and whether one of the rules keeps it away from the proxy: port 53, a bypass
    /// address, a direct process. `processPath` is the image of the process that owns it, or empty; `dstIp` is 0 for
    /// IPv6.
    UpstreamDecision decide(const std::wstring &processPath, std::uint32_t dstIp, std::uint16_t dstPort) const;
    /// Whether what this process sends goes direct in every case, datagrams too.
    bool isAlwaysDirect(const std::wstring &processPath) const;
    /// The port of that decision alone.
    std::uint16_t chooseUpstreamPort(const std::wstring &processPath, std::uint32_t dstIp,
                                     std::uint16_t dstPort) const
    {
        return decide(processPath, dstIp, dstPort).port;
    }

private:
    std::uint16_t m_proxyPort = 10808;
    std::uint16_t m_directPort = 20808;
    std::set<std::uint32_t> m_bypassIps;
    // Lower case.
    std::set<std::wstring> m_proxyProcesses;
    std::set<std::wstring> m_directProcesses;
    std::set<std::wstring> m_alwaysDirectProcesses;
};

} // namespace ruvo
