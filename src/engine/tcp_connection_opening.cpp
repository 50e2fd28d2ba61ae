// How a connection comes to its socket: the exchange with the proxy.

#include "engine/tcp_connection.h"

#include "common/log_category.h"
#include "engine/tcp_engine.h"
#include "engine/tcp_failures.h"
#include "engine/tcp_notes.h"
#include "io/socket_options.h"
#include "socks5/proxy_signs.h"

#include <utility>

namespace ruvo {

namespace {

/// What a CONNECT may have, whatever its name.
constexpr std::size_t maxRequest = 512;
constexpr std::size_t requestAroundName = 7;
constexpr std::size_t maxName = maxRequest - requestAroundName;

Endpoint proxyEndpoint(const std::wstring &host, std::uint16_t port)
{
    in_addr address{};
    InetPtonW(AF_INET, host.c_str(), &address);
    return {ntohl(address.s_addr), port};
}

} // namespace

PortExchangePlan TcpConnection::plan()
{
    using namespace socks5;
    SocksRequest request = Endpoint{m_key.destinationIp, m_key.destinationPort};
    if (!m_name.empty())
        request = NamedDestination{m_name, m_key.destinationPort};
    else if (m_key.family == 6)
        request = Ipv6Destination{m_key.destinationIp6, m_key.destinationPort};
    return {
        .peer = proxyEndpoint(m_services.proxyHost, m_upstream.port),
        // A name that is too long ends it behind the method's reply, where the request would follow.
        .request = requestBytes(request, maxName).value_or(Bytes()),
        .key = CompletionKey::TcpConnection,
        .noDelay = true, // the application has waited for full segments already, if it wanted to
        .deadline = m_services.clock() + patience,
    };
}

void TcpConnection::startUpstreamConnect()
{
    auto exchange = std::make_shared<PortExchange>(
        *m_services.completionPort, plan(),
        [self = shared_from_this()](Result result) { self->onExchangeEnded(std::move(result)); });
    {
        const std::lock_guard lock(m_mutex);
        if (m_isClosed) // by a reset, which has found no exchange to cancel
            return;
        m_exchange = exchange;
    }
    exchange->start();
}

void TcpConnection::onExchangeEnded(Result result)
{
    tell(m_services.proxyWitness, m_upstream.port, proxySightingOf(result));
    if (result)
        return orEnd([&] { onEstablished(std::move(*result)); });
    // The outcome may have been on its way already when the application gave up.
    if (isClosed())
        return;
    orEnd([&] {
        if (result.error().step == PortExchangeFailure::Step::Connect)
            onConnectCompleted(result.error());
        else
            onHandshakeCompleted(result.error());
    });
    m_engine.cleanupConnection(shared_from_this());
}

/// Nobody has answered the application's SYN yet.
void TcpConnection::onConnectCompleted(const PortExchangeFailure &failure)
{
    logExchangeFailure(failure, destination());
    m_stream.refuse();
}

void TcpConnection::onHandshakeCompleted(const PortExchangeFailure &failure)
{
    logExchangeFailure(failure, destination());
}

void TcpConnection::onEstablished(EstablishedExchange established)
{
    if (m_name.size() > maxName) {
        if (isDue(TcpNote::NameTooLong))
            qCWarning(lcRuvod) << "[BUFFER WARNING] Domain too long:" << QString::fromStdString(m_name);
        return m_engine.cleanupConnection(shared_from_this());
    }
    setNonBlocking(established.socket.get());
    noteProgress(m_services.clock());
    bool isWanted = false;
    {
        const std::lock_guard lock(m_mutex);
        if (m_isClosed)
            return;
        m_buffer = makePageBuffer<std::uint8_t>(bufferSize);
        m_exchange.reset();
        m_socket = std::move(established.socket);
        m_skipsPort = established.skipsPort;
        // Under the same lock as closing: the SYN of a connection that has gone is not answered.
        isWanted = m_stream.establish();
    }
    if (!isWanted) {
        close(Closing::Abortive);
        return m_engine.endIfDone(shared_from_this());
    }
    m_engine.onEstablished(shared_from_this());
    if (isDue(TcpNote::Established)) {
        qCCritical(lcRuvod) << "[DATA-ESTABLISHED] Connection reached ESTABLISHED state - port:" << port()
                            << "dest:" << destination();
    }
    receiveMore(false);
}

} // namespace ruvo
