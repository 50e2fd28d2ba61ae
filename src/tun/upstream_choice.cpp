#include "tun/upstream_choice.h"

#include "common/capped_log.h"
#include "common/dns_redirect.h"
#include "common/ipv4.h"
#include "common/log_category.h"

#include <cwctype>

namespace ruvo {

namespace {

std::wstring lowerCase(std::wstring text)
{
    for (wchar_t &character : text)
        character = static_cast<wchar_t>(std::towlower(static_cast<std::wint_t>(character)));
    return text;
}

std::wstring executableName(const std::wstring &path)
{
    const std::size_t separator = path.find_last_of(L"\\/");
    return lowerCase(separator == std::wstring::npos ? path : path.substr(separator + 1));
}

} // namespace

void UpstreamChoice::setPorts(std::uint16_t proxyPort, std::uint16_t directPort)
{
    m_proxyPort = proxyPort;
    m_directPort = directPort;
}

void UpstreamChoice::addBypassIp(std::uint32_t address)
{
    qCDebug(lcRuvod) << "Bypass IP:" << formatIpv4(address);
    m_bypassIps.insert(address);
}

void UpstreamChoice::addProxyProcess(const std::wstring &name)
{
    qCDebug(lcRuvod) << "Proxy process:" << QString::fromStdWString(name) << "(port" << m_proxyPort;
    m_proxyProcesses.insert(lowerCase(name));
}

void UpstreamChoice::addDirectProcess(const std::wstring &name)
{
    qCDebug(lcRuvod) << "Direct process:" << QString::fromStdWString(name) << "(port" << m_directPort;
    m_directProcesses.insert(lowerCase(name));
}

void UpstreamChoice::addAlwaysDirectProcess(const std::wstring &name)
{
    m_alwaysDirectProcesses.insert(lowerCase(name));
}

UpstreamDecision UpstreamChoice::decide(const std::wstring &processPath, std::uint32_t dstIp,
                                        std::uint16_t dstPort) const
{
    const UpstreamDecision direct{.port = m_directPort, .isDirect = true};
    const UpstreamDecision proxied{.port = m_proxyPort, .isDirect = false};
    if (dstPort == dnsPort)
        return direct;
    if (m_bypassIps.contains(dstIp)) {
        // Another machine can bring a line about with each packet.
        static CappedLog s_bypassed(10, 100);
        if (s_bypassed.take()) {
            qCWarning(lcRuvod) << "[PORT] destIp" << formatIpv4(dstIp) << "in bypassIps -> direct port"
                               << m_directPort;
        }
        return direct;
    }
    if (processPath.empty())
        return proxied;
    // Who is on neither list is proxied, like who is on the proxy list.
    return m_directProcesses.contains(executableName(processPath)) ? direct : proxied;
}

bool UpstreamChoice::isAlwaysDirect(const std::wstring &processPath) const
{
    return m_alwaysDirectProcesses.contains(executableName(processPath));
}

} // namespace ruvo
