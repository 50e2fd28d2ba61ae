#include "nat/relay_connector.h"

#include "io/socket_options.h"
#include "nat/direct_connect.h"
#include "socks5/proxy_signs.h"

#include <new>
#include <variant>

namespace ruvo {

namespace {

std::optional<std::uint32_t> parseAddress(const std::wstring &host)
{
    in_addr address{};
    if (InetPtonW(AF_INET, host.c_str(), &address) != 1)
        return std::nullopt;
    return ntohl(address.s_addr);
}

} // namespace

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

RelayConnector::RelayConnector(const std::wstring &proxyHost, CompletionPort &completionPort, TcpNatTable &natTable,
                               Questions questions, std::size_t limit)
    : m_proxyHost(proxyHost)
    , m_proxyAddress(parseAddress(proxyHost))
    , m_completionPort(completionPort)
    , m_natTable(natTable)
    , m_questions(std::move(questions))
    , m_limit(limit)
{}

void RelayConnector::relay(Socket socket, const TcpNatSessionPtr &session)
{
    PendingClientPtr client;
    try {
        client = std::make_shared<PendingClient>(std::move(socket), session, m_natTable);
    } catch (const std::bad_alloc &) {
        resetWhenClosed(socket.get());
        return m_natTable.end(session);
    }
    orForget(client, [&] { findWayOut(client); });
}

/// No memory for one client is the end of that one only.
template<typename Step>
void RelayConnector::orForget(const PendingClientPtr &client, Step step)
{
    try {
        step();
    } catch (const std::bad_alloc &) {
        PortExchangePtr attempt;
        {
            const std::lock_guard lock(m_mutex);
            attempt = client->attempt;
            m_pending.erase(client);
        }
        if (attempt)
            attempt->cancel(); // its callback refers to the client
    }
}

void RelayConnector::findWayOut(const PendingClientPtr &client)
{
    const std::optional<RelayRoute> route = m_questions.routeFor(*client->session());
    if (!route || !admit(client))
        return;
    client->route = *route;
    if (!setNonBlocking(client->socket())) {
        m_log.clientBlocks(WSAGetLastError());
        forget(client);
    } else if (client->hasGone()) {
        forget(client);
    } else if (route->isDirect) {
        connectDirectly(client);
    } else {
        connectThroughProxy(client);
    }
}

/// Whether there is room for one more client.
bool RelayConnector::admit(const PendingClientPtr &client)
{
    const std::size_t relays = m_relays.size();
    {
        const std::lock_guard lock(m_mutex);
        if (m_stopped)
            return false;
        if (m_pending.size() + relays < m_limit) {
            m_pending.insert(client);
            return true;
        }
    }
    m_log.tooMany();
    return false;
}

/// Until the outcome is known, the callback keeps the client alive.
void RelayConnector::begin(const PendingClientPtr &client, PortExchangePlan plan, PortExchange::Callback callback)
{
    plan.key = CompletionKey::RelayReceive;
    const SteadyTime deadline = steadyNow() + attemptTimeout;
    plan.deadline = deadline;
    const auto attempt = std::make_shared<PortExchange>(m_completionPort, std::move(plan), std::move(callback));
    {
        const std::lock_guard lock(m_mutex);
        // After stop has collected them, nobody would cancel it.
        if (!m_pending.contains(client))
            return;
        client->attempt = attempt;
        client->deadline = deadline;
    }
    attempt->start();
}

void RelayConnector::connectDirectly(const PendingClientPtr &client)
{
    const Endpoint destination{client->route.address, client->route.port};
    begin(client, directConnectPlan(destination, m_questions.physicalInterface(), m_log),
          [this, client, destination](PortExchange::Outcome outcome) {
              orForget(client, [&] {
                  if (outcome)
                      return startRelay(client, std::move(*outcome));
                  m_log.directFailed(outcome.error(), destination);
                  forget(client);
              });
          });
}

void RelayConnector::connectThroughProxy(const PendingClientPtr &client)
{
    const RelayRoute &route = client->route;
    std::string name = m_questions.nameOf(route.address);
    if (name.empty())
        askProxy(client, Endpoint{route.address, route.port});
    else
        askProxy(client, socks5::NamedDestination{std::move(name), route.port});
}

void RelayConnector::askProxy(const PendingClientPtr &client, const socks5::SocksRequest &request)
{
    const bool byName = std::holds_alternative<socks5::NamedDestination>(request);
    std::optional<socks5::Bytes> bytes = socks5::requestBytes(request);
    if (!m_proxyAddress)
        m_log.noProxyAddress(m_proxyHost);
    else if (!bytes)
        m_log.nameTooLong();
    if (!m_proxyAddress || !bytes)
        return proxyRefused(client, byName);
    begin(client, {.peer = {*m_proxyAddress, client->route.proxyPort}, .request = std::move(bytes)},
          [this, client, byName](PortExchange::Outcome outcome) {
              tell(m_questions.proxyWitness, client->route.proxyPort, proxySightingOf(outcome));
              orForget(client, [&] {
                  if (outcome)
                      return startRelay(client, std::move(*outcome));
                  m_log.proxyFailed(outcome.error(), byName);
                  proxyRefused(client, byName);
              });
          });
}

/// A proxy that refuses the name may still take the address, on a connection of its own.
void RelayConnector::proxyRefused(const PendingClientPtr &client, bool byName)
{
    if (byName && client->hasGone())
        return forget(client);
    if (byName)
        return askProxy(client, Endpoint{client->route.address, client->route.port});
    m_log.proxyGivenUp();
    forget(client);
}

void RelayConnector::startRelay(const PendingClientPtr &client, EstablishedExchange destination)
{
    if (!setNonBlocking(destination.socket.get())) {
        m_log.destinationBlocks(WSAGetLastError());
        return forget(client);
    }
    const std::uint64_t id = m_relays.nextId();
    const auto relay = std::make_shared<RelaySession>(id, client->takeSocket(), std::move(destination.socket),
                                                      client->route.isDirect, m_completionPort,
                                                      [this, id, session = client->session()] {
                                                          m_relays.remove(id);
                                                          m_natTable.end(session);
                                                      });
    client->forgetSession(); // it is the relay's now
    bool isRunning = false;
    try {
        isRunning = m_relays.insert(relay);
    } catch (const std::bad_alloc &) {
        // Aborted below, which resets the client and ends its session.
    }
    forget(client);
    if (isRunning)
        relay->start(destination.skipsPort);
    else
        relay->abort();
}

/// It does not wait any more. With the last reference it is reset, unless it has its relay.
void RelayConnector::forget(const PendingClientPtr &client)
{
    const std::lock_guard lock(m_mutex);
    m_pending.erase(client);
}

void RelayConnector::housekeeping(SteadyTime now)
{
    std::vector<PortExchangePtr> overdue;
    try {
        overdue = overdueAttempts(now);
    } catch (const std::bad_alloc &) {
        // The next second sees to them.
    }
    for (const PortExchangePtr &attempt : overdue) {
        if (m_stopped)
            return;
        attempt->expireIfOverdue(now);
    }
    m_relays.closeOverdue();
}

std::vector<PortExchangePtr> RelayConnector::overdueAttempts(SteadyTime now) const
{
    std::vector<PortExchangePtr> attempts;
    const std::lock_guard lock(m_mutex);
    for (const PendingClientPtr &client : m_pending) {
        if (!client->attempt || now < client->deadline)
            continue;
        attempts.push_back(client->attempt);
        if (attempts.size() == maxExpiredAtOnce)
            break;
    }
    return attempts;
}

void RelayConnector::stopConnecting()
{
    std::unordered_set<PendingClientPtr> pending;
    {
        const std::lock_guard lock(m_mutex);
        m_stopped = true;
        pending.swap(m_pending);
    }
    for (const PendingClientPtr &client : pending) {
        if (client->attempt)
            client->attempt->cancel();
    }
}

void RelayConnector::stop()
{
    stopConnecting();
    m_relays.closeAll();
}

std::size_t RelayConnector::waiting() const
{
    const std::lock_guard lock(m_mutex);
    return m_pending.size();
}

} // namespace ruvo
