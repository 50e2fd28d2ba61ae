// How the tunnel comes up, step by step. The order is what the rest relies on: the adapter has its address before
// anything binds to it, and packets flow only once everything that takes them is there.

#include "tun/tunnel.h"

#include "common/ipv4.h"
#include "common/log_category.h"
#include "netcfg/resolver_cache.h"

#include <QString>

namespace ruvo {

namespace {

constexpr wchar_t tunnelType[] = L"SocksTunnel";
constexpr std::uint32_t ringCapacity = 0x1000000; // 16 MiB
constexpr std::uint32_t interfaceMetric = 0;
/// The tunnel carries no IPv6 of this host: whatever has a way around it would leave unseen.
constexpr bool blockIpv6 = true;

} // namespace

std::expected<void, std::string> Tunnel::start(const std::wstring &adapterName, std::uint32_t tunnelIp,
                                               std::uint8_t prefixLength, const std::wstring &wintunLibraryPath)
{
    if (m_running)
        return {};
    m_tunnelIp = tunnelIp;
    if (Result opened = openAdapter(adapterName, wintunLibraryPath); !opened)
        return opened;
    if (Result configured = configureAdapter(prefixLength); !configured)
        return configured;
    openFirewall();
    if (Result session = openSession(); !session)
        return session;
    ResetEvent(m_stopEvent.get());
    openProxyHealth();
    if (Result tcpNat = openTcpNat(); !tcpNat)
        return tcpNat;
    openUdpNat();
    openEngine();
    openDispatcher();

    m_running = true;
    startThreads();
    qCDebug(lcRuvod) << "Tunnel started on" << QString::fromStdWString(adapterName);
    qCDebug(lcRuvod).nospace().noquote() << "Tunnel IP: " << formatIpv4(m_tunnelIp) << "/" << prefixLength;
    qCDebug(lcRuvod).nospace().noquote()
        << "Proxy: " << QString::fromStdWString(m_settings.proxyHost) << ":" << m_settings.proxyPort;
    qCDebug(lcRuvod) << "IOCP workers:" << m_workers.size() << "(fully async)";
    return {};
}

Tunnel::Result Tunnel::openAdapter(const std::wstring &adapterName, const std::wstring &wintunLibraryPath)
{
    m_firewall.reset(); // a failed start has left it: its filters name the adapter that goes now
    m_adapter = std::make_unique<WintunAdapter>();
    if (!m_adapter->load(wintunLibraryPath)) {
        qCCritical(lcRuvod) << "Failed to initialize Wintun";
        return std::unexpected("Failed to initialize Wintun (DLL not found or incompatible version)");
    }
    if (!m_adapter->createAdapter(adapterName, tunnelType)) {
        qCCritical(lcRuvod) << "Failed to create adapter";
        return std::unexpected("Failed to create Wintun adapter (driver issue or insufficient permissions)");
    }
    return {};
}

Tunnel::Result Tunnel::configureAdapter(std::uint8_t prefixLength)
{
    if (!m_adapter->setIpAddress(m_tunnelIp, prefixLength)) {
        qCCritical(lcRuvod) << "Failed to set IP address";
        return std::unexpected("Failed to set IP address on TUN adapter");
    }
    const std::uint32_t peer = m_tunnelIp + 1;
    const QString peerText = formatIpv4(peer);
    qCDebug(lcRuvod) << "NAT client IP (gateway/DNS, not assigned):" << peerText;
    if (!m_adapter->setGateway(peer))
        qCWarning(lcRuvod) << "Warning: Failed to set gateway (continuing anyway)";
    if (!m_adapter->setMetric(interfaceMetric))
        qCWarning(lcRuvod) << "Warning: Failed to set interface metric (DNS may not work!)";

    qCDebug(lcRuvod) << "Configuring DNS hijacking: DNS server =" << peerText << "(TUN IP + 1)";
    if (!m_adapter->setDnsServers(peerText.toStdString(), {})) {
        qCCritical(lcRuvod) << "Failed to set DNS servers for hijacking";
        return std::unexpected("Failed to set DNS servers (network configuration error)");
    }
    if (!m_adapter->setIpv6DnsServers({}, {}))
        qCWarning(lcRuvod) << "Warning: Failed to clear IPv6 DNS servers (continuing anyway)";
    flushDnsCache();
    return {};
}

/// The tunnel goes on without what fails here: its traffic takes its way all the same, only other ways stay open.
void Tunnel::openFirewall()
{
    m_firewall = std::make_unique<FirewallManager>();
    if (!m_firewall->initialize()) {
        qCWarning(lcRuvod) << "Warning: Failed to initialize firewall manager (continuing without firewall rules)";
        m_firewall.reset();
        return;
    }
    const std::uint32_t interfaceIndex = m_adapter->interfaceIndex();
    if (interfaceIndex == 0) {
        qCWarning(lcRuvod) << "Warning: Failed to get TUN interface index (continuing without firewall rules)";
        m_firewall.reset();
        return;
    }
    if (!m_firewall->applyStrictRoute(interfaceIndex, m_tunnelIp + 1, blockIpv6))
        qCWarning(lcRuvod) << "Warning: Failed to apply firewall rules (DNS leaks may occur)";
}

Tunnel::Result Tunnel::openSession()
{
    if (!m_adapter->startSession(ringCapacity)) {
        qCCritical(lcRuvod) << "Failed to start session";
        return std::unexpected("Failed to start Wintun session (driver communication error)");
    }
    m_adapter->setPacketCallback(
        [this](const std::uint8_t *data, std::uint32_t size) { dispatchPacket(data, size); });
    if (!m_completionPort.open()) {
        const DWORD error = GetLastError();
        qCCritical(lcRuvod) << "Failed to create IOCP:" << error;
        return std::unexpected("Failed to create I/O Completion Port (error " + std::to_string(error) + ")");
    }
    return {};
}

} // namespace ruvo
