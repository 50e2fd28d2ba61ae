#pragma once

#include "netcfg/route_manager.h"
#include "tun/tunnel.h"
#include "tun/tunnel_configuration.h"

#include <QJsonObject>
#include <QObject>
#include <QString>

#include <cstdint>
#include <expected>
#include <memory>
#include <vector>

namespace ruvo {

/// The tunnel as the daemon drives it: configuration in, JSON answers out, and the routes that go with it.
/// Service thread. Starting takes as long as Windows needs for the adapter; stopping as Tunnel::stop.
class RuvoTunManager : public QObject
{
    Q_OBJECT

public:
    explicit RuvoTunManager(QObject *parent = nullptr);
    /// Stops a started tunnel.
    ~RuvoTunManager() override;

    /// Takes away what a run of the daemon that was killed has left on the machine. Before the first start.
    void removeLeftovers();

    QJsonObject start(const QJsonObject &config);
    QJsonObject stop();
    QJsonObject status() const;
    void flushDnsCache();
    /// See Tunnel::resetConnections. Nothing but a warning without a tunnel.
    void resetConnections();

    /// Whether there is a tunnel to stop, alive or not.
    bool isStarted() const { return m_started; }

signals:
    void tunStarted();
    void tunStopped();
    void tunError(const QString &message);
    void proxyHealthCheckFailed();

private:
    std::expected<void, QString> bringUp(const TunnelConfiguration &configuration);
    std::unique_ptr<Tunnel> makeTunnel(const TunnelConfiguration &configuration);
    void routeIntoTunnel(const TunnelConfiguration &configuration, std::vector<DefaultRoute> earlierDefaultRoutes);
    void takeDown();

    const QString m_wintunLibraryPath;
    const BypassRouteNotes m_bypassRouteNotes;
    std::unique_ptr<Tunnel> m_tunnel;
    /// Counts the tunnels made and taken down: what the last one had to tell is told only while it stands.
    std::uint64_t m_generation = 0;
    std::unique_ptr<RouteManager> m_routeManager;
    bool m_started = false;
    QString m_adapterName;
    std::uint32_t m_originalInterfaceIndex = 0;
};

} // namespace ruvo
