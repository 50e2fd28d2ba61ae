// Whether the proxy still lives: who is told of its connections, and who is told of its death.

#include "tun/tunnel.h"

#include "common/log_category.h"

namespace ruvo {

/// Before the paths, which tell it of their connections.
void Tunnel::openProxyHealth()
{
    m_proxyHealth = std::make_unique<ProxyHealth>(m_settings.proxyPort, m_settings.directPort, [this](auto port) {
        if (!m_running)
            return;
        qCWarning(lcRuvod) << "[RUVO-TUN] The proxy does not answer any more on port" << port;
        if (m_healthCheckFailed)
            m_healthCheckFailed();
    });
    m_proxyCheck = std::make_unique<ProxyCheck>(m_settings.proxyHost, m_stopEvent.get(), *m_proxyHealth);
}

ProxyWitness Tunnel::proxyWitness()
{
    return [health = m_proxyHealth.get()](std::uint16_t port, const ProxySighting &sighting) {
        health->note(port, sighting);
    };
}

} // namespace ruvo
