#include "tun/proxy_check.h"

#include "common/ipv4.h"
#include "io/socket_options.h"
#include "io/timed_io.h"
#include "socks5/proxy_signs.h"

#include <QString>

#include <new>

namespace ruvo {

ProxyCheck::ProxyCheck(const std::wstring &proxyHost, HANDLE stopEvent, ProxyHealth &health)
    : m_proxyAddress(parseIpv4(QString::fromStdWString(proxyHost))), m_stopEvent(stopEvent), m_health(health)
{}

void ProxyCheck::poll(SteadyTime now)
{
    while (const std::optional<std::uint16_t> port = m_health.takeDueCheck(now)) {
        if (!begin(*port))
            m_health.noteChecked(*port, std::nullopt);
    }
}

/// False if there is no address, no thread, or no memory for one.
bool ProxyCheck::begin(std::uint16_t port)
{
    if (m_proxyAddress == 0)
        return false;
    try {
        return m_threads.post([this, port] { m_health.noteChecked(port, check(port)); });
    } catch (const std::bad_alloc &) {
        return false;
    }
}

/// On a thread that may block.
std::optional<ProxySighting> ProxyCheck::check(std::uint16_t port) const
{
    const Socket socket(openSocket(SOCK_STREAM, IPPROTO_TCP));
    if (!socket)
        return std::nullopt;
    takeRefusalAtOnce(socket.get(), m_proxyAddress);
    const SocketWait::Clock::time_point deadline = SocketWait::Clock::now() + timeout;
    SocketWait wait(m_stopEvent);
    const int error = connectWithin(wait, socket.get(), socketAddress(m_proxyAddress, port), deadline);
    if (error != NO_ERROR)
        return proxySightingOfConnect(error);
    socks5::SocksExchange greeting{socks5::Bytes()};
    return proxySightingOf(driveExchange(greeting, wait, socket.get(), [deadline] { return deadline; }));
}

} // namespace ruvo
