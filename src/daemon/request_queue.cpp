#include "daemon/request_queue.h"

#include <utility>

namespace ruvo {

RequestQueue::RequestQueue(Services services, QObject *parent) : QObject(parent), m_services(std::move(services))
{
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, &RequestQueue::work);
}

void RequestQueue::add(const QString &clientId, const QJsonObject &message, qsizetype size)
{
    append(clientId, {.message = message, .size = size + requestOverhead});
}

void RequestQueue::addDeparture(const QString &clientId, std::function<void()> departure)
{
    if (isBusy(clientId))
        append(clientId, {.departure = std::move(departure)});
    else
        departure();
}

void RequestQueue::append(const QString &clientId, Entry entry)
{
    Client &client = m_clients[clientId];
    if (client.waiting.empty() && !client.isHandling)
        m_turns.enqueue(clientId);
    client.bytes += entry.size;
    client.waiting.push_back(std::move(entry));
    if (!m_timer.isActive() && !m_turns.isEmpty())
        m_timer.start(0);
    if (!client.isHeld && client.bytes >= maxWaitingBytes) {
        client.isHeld = true;
        m_services.holdBack(clientId, true);
    }
}

void RequestQueue::work()
{
    const SteadyTime end = m_services.clock() + turnTime;
    while (!m_turns.isEmpty()) {
        if (m_services.clock() >= end) {
            m_timer.start(0);
            return;
        }
        workOn(m_turns.dequeue());
    }
}

void RequestQueue::workOn(const QString &clientId)
{
    const Entry entry = takeNext(clientId);
    // A handler that runs an event loop must not keep the others waiting.
    if (!m_turns.isEmpty())
        m_timer.start(0);
    if (entry.departure)
        entry.departure();
    else
        m_services.handle(clientId, entry.message);

    const auto client = m_clients.find(clientId);
    if (client == m_clients.end())
        return; // forgotten meanwhile
    client->isHandling = false;
    if (client->waiting.empty())
        m_clients.erase(client);
    else
        m_turns.enqueue(clientId);
}

RequestQueue::Entry RequestQueue::takeNext(const QString &clientId)
{
    Client &client = m_clients[clientId];
    Entry entry = std::move(client.waiting.front());
    client.waiting.pop_front();
    client.isHandling = true;
    client.bytes -= entry.size;
    if (client.isHeld && client.bytes <= maxWaitingBytes / 2) {
        client.isHeld = false;
        m_services.holdBack(clientId, false);
    }
    return entry;
}

void RequestQueue::finishDepartures()
{
    m_timer.stop();
    m_turns.clear();
    for (Client &client : std::exchange(m_clients, {})) {
        for (const Entry &entry : client.waiting) {
            if (entry.departure)
                entry.departure();
        }
    }
}

} // namespace ruvo
