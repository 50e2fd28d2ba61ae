#include "nat/relay_connector.h"

#include "common/log_category.h"
#include "io/socket_options.h"
#include "nat/direct_connect.h"
#include "socks5/socks_client.h"

namespace ruvo {

RelayConnector::PendingClient::PendingClient(Socket socket, TcpNatSessionPtr session, TcpNatTable &table)
    : m_socket(std::move(socket)), m_session(std::move(session)), m_table(table)
{}

// With a reset: the client must not take a connection that came to nothing for an answer without content.
RelayConnector::PendingClient::~PendingClient()
{
    if (m_socket)
        resetWhenClosed(m_socket.get());
    if (m_session)
        m_table.end(m_session);
}

bool RelayConnector::PendingClient::hasGone() const
{
    char byte = 0;
    const int received = recv(m_socket.get(), &byte, 1, MSG_PEEK);
    return received == 0 || (received < 0 && WSAGetLastError() != WSAEWOULDBLOCK);
}

RelayConnector::RelayConnector(std::wstring proxyHost, HANDLE stopEvent, CompletionPort &completionPort,
                               TcpNatTable &natTable, Questions questions)
    : m_proxyHost(std::move(proxyHost))
    , m_stopEvent(stopEvent)
    , m_completionPort(completionPort)
    , m_natTable(natTable)
    , m_questions(std::move(questions))
{}

void RelayConnector::relay(Socket socket, const TcpNatSessionPtr &session)
{
    PendingClient client(std::move(socket), session, m_natTable);
    const std::optional<RelayRoute> route = m_questions.routeFor(*session);
    if (!route)
        return;
    (route->isDirect ? m_directThreads : m_proxyThreads)
        .post([this, client = std::move(client), route = *route]() mutable {
            connectAndStart(std::move(client), route);
        });
}

void RelayConnector::connectAndStart(PendingClient client, const RelayRoute &route)
{
    if (!setNonBlocking(client.socket())) {
        const int error = WSAGetLastError();
        qCWarning(lcRuvod) << "[TCP-NAT] Failed to make the client socket non-blocking:" << error;
        return;
    }
    // It may have given up while others were connected.
    if (client.hasGone())
        return;
    Socket destination =
        route.isDirect ? connectDirectly(route.address, route.port, m_questions.physicalInterface(), m_stopEvent)
                       : connectThroughProxy(route);
    if (!destination)
        return;
    const std::uint64_t id = m_relays.nextId();
    const auto relay = std::make_shared<RelaySession>(id, client.takeSocket(), std::move(destination), route.isDirect,
                                                      m_completionPort, [this, id, session = client.takeSession()] {
                                                          m_relays.remove(id);
                                                          m_natTable.end(session);
                                                      });
    if (m_relays.insert(relay))
        relay->start();
    else
        relay->abort();
}

Socket RelayConnector::connectThroughProxy(const RelayRoute &route)
{
    SocksClient proxy(m_proxyHost, route.proxyPort, m_stopEvent);
    const std::string name = m_questions.nameOf(route.address);
    // A proxy that refuses the name may still take the address, on a connection of its own.
    const bool isConnected =
        (!name.empty() && proxy.connectTo(name, route.port)) || proxy.connectTo(route.address, route.port);
    if (!isConnected) {
        qCWarning(lcRuvod) << "[TCP-NAT] Failed to connect to SOCKS5 proxy";
        return {};
    }
    return proxy.releaseTcpSocket();
}

void RelayConnector::stop()
{
    m_proxyThreads.stop();
    m_directThreads.stop();
    m_relays.closeAll();
}

} // namespace ruvo
