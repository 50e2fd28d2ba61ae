#include "tun/ruvo_tun_manager.h"

#include "common/log_category.h"
#include "netcfg/resolver_cache.h"

#include <QCoreApplication>

#include <exception>
#include <utility>

namespace ruvo {

namespace {

constexpr std::uint8_t prefixLength = 30;
constexpr std::uint32_t networkMask = ~std::uint32_t{0} << (32 - prefixLength);
/// On-link.
constexpr std::uint32_t splitNextHop = 0;

QJsonObject failure(const QString &text)
{
    return {{"success", false}, {"error", text}};
}

} // namespace

RuvoTunManager::RuvoTunManager(QObject *parent)
    : QObject(parent), m_wintunLibraryPath(QCoreApplication::applicationDirPath() + "/tun2/wintun.dll")
{}

RuvoTunManager::~RuvoTunManager()
{
    stop();
}

void RuvoTunManager::removeLeftovers()
{
    removeLeftoverBypassRoutes(m_bypassRouteNotes);
}

QJsonObject RuvoTunManager::start(const QJsonObject &config)
{
    if (m_started && m_tunnel->isRunning())
        return failure("TUN already running");
    if (m_started) // it died under us
        takeDown();

    const auto configuration = parseTunnelConfiguration(config);
    if (!configuration)
        return failure(configuration.error());
    if (const std::expected<void, QString> started = bringUp(*configuration); !started) {
        m_routeManager.reset();
        m_tunnel.reset();
        qCCritical(lcRuvod) << started.error();
        emit tunError(started.error());
        return failure(started.error());
    }
    m_started = true;
    m_adapterName = configuration->adapterName;
    qCDebug(lcRuvod) << "RuvoTunManager: TUN started with adapter" << m_adapterName;
    emit tunStarted();
    return {{"success", true}, {"adapter-name", m_adapterName}, {"tunnel-ip", configuration->tunnelIpText}};
}

/// On failure the caller lets go of what is there already. Want of threads or memory is a failure like any other:
/// left to the event loop, it would be the end of every client's processes too.
std::expected<void, QString> RuvoTunManager::bringUp(const TunnelConfiguration &configuration)
try {
    // Once the tunnel has its default route, Windows may list that one first.
    std::vector<DefaultRoute> earlierDefaultRoutes = defaultRoutes();
    m_tunnel = makeTunnel(configuration);
    const auto started = m_tunnel->start(configuration.adapterName.toStdWString(), configuration.tunnelIp,
                                         prefixLength, m_wintunLibraryPath.toStdWString());
    if (!started)
        return std::unexpected(QString::fromStdString(started.error()));
    routeIntoTunnel(configuration, std::move(earlierDefaultRoutes));
    return {};
} catch (const std::exception &error) {
    return std::unexpected(QString("Failed to start the tunnel: ") + QString::fromLocal8Bit(error.what()));
}

std::unique_ptr<Tunnel> RuvoTunManager::makeTunnel(const TunnelConfiguration &configuration)
{
    auto tunnel = std::make_unique<Tunnel>(settingsOf(configuration));
    // From any thread. By the time that this object's own comes to it, the tunnel may have been stopped, and another
    // one started, whose proxy is a different one.
    tunnel->setHealthCheckFailedCallback([this, generation = ++m_generation] {
        const auto tell = [this, generation] {
            if (generation == m_generation)
                emit proxyHealthCheckFailed();
        };
        QMetaObject::invokeMethod(this, tell, Qt::QueuedConnection);
    });
    return tunnel;
}

void RuvoTunManager::routeIntoTunnel(const TunnelConfiguration &configuration,
                                     std::vector<DefaultRoute> earlierDefaultRoutes)
{
    m_routeManager = std::make_unique<RouteManager>(m_bypassRouteNotes);
    m_routeManager->setInterface(m_tunnel->adapterLuid());
    m_routeManager->setTunnelNetwork({configuration.tunnelIp, networkMask});
    m_routeManager->setEarlierDefaultRoutes(std::move(earlierDefaultRoutes));
    std::uint32_t gateway = 0;
    m_originalInterfaceIndex = 0;
    if (!m_routeManager->findOriginalGateway(gateway, m_originalInterfaceIndex))
        qCWarning(lcRuvod) << "Failed to get original default gateway";
    qCDebug(lcRuvod) << "Original network interface index:" << m_originalInterfaceIndex;
    // The only default route may be the tunnel's own: binding direct connections to it would send them back in.
    const bool isPhysical = m_originalInterfaceIndex != m_tunnel->adapterIndex();
    m_tunnel->setPhysicalInterface(isPhysical ? m_originalInterfaceIndex : 0);

    m_routeManager->setBypassAddresses(m_tunnel->bypassIps());
    if (!m_routeManager->setupFullTunnelRouting(splitNextHop, configuration.proxyIp, gateway))
        qCWarning(lcRuvod) << "Failed to set up full tunnel routing";
}

void RuvoTunManager::takeDown()
{
    ++m_generation;
    m_routeManager.reset(); // removes its routes
    m_tunnel->stop();
    m_tunnel.reset();
    m_started = false;
    m_adapterName.clear();
}

QJsonObject RuvoTunManager::stop()
{
    if (!m_started)
        return failure("TUN not running");
    takeDown();
    qCDebug(lcRuvod) << "RuvoTunManager: TUN stopped";
    emit tunStopped();
    return {{"success", true}};
}

QJsonObject RuvoTunManager::status() const
{
    return {{"running", m_started}, {"adapter-name", m_adapterName}};
}

void RuvoTunManager::flushDnsCache()
{
    ruvo::flushDnsCache();
    qCDebug(lcRuvod) << "RuvoTunManager: DNS cache flushed";
}

void RuvoTunManager::resetConnections()
{
    if (!m_started) {
        qCWarning(lcRuvod) << "RuvoTunManager: Cannot reset connections - TUN not running";
        return;
    }
    m_tunnel->resetConnections();
    qCDebug(lcRuvod) << "RuvoTunManager: All connections reset";
}

} // namespace ruvo
