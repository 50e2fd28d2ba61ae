#pragma once

#include "common/steady_clock.h"

#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QQueue>
#include <QString>
#include <QTimer>

#include <chrono>
#include <deque>
#include <functional>

namespace ruvo {

/// The requests that clients have sent and that were not handled yet, so that one client's flood does not keep the
/// daemon from the others.
///
/// Clients take turns, one request each. A client's requests are handled in their order, each after the one before
/// has returned, even where a handler runs an event loop of its own. What a client's departure sets in motion comes
/// behind its requests. Service thread only, from the event loop: nothing is handled inside of `add`.
class RequestQueue : public QObject
{
    Q_OBJECT

public:
    /// All functions are called on the service thread and have to be set.
    struct Services
    {
        std::function<void(const QString &clientId, const QJsonObject &message)> handle;
        /// Whether nothing more is to be read of this client for now.
        std::function<void(const QString &clientId, bool held)> holdBack;
        SteadyClock clock = steadyNow;
    };

    /// What may wait of one client, in bytes, before it is held back until half of it is done.
    static constexpr qsizetype maxWaitingBytes = 1024 * 1024;
    /// What each request counts beside its length: the least memory that it takes.
    static constexpr qsizetype requestOverhead = 256;
    /// How long requests are handled before the event loop has its turn again. A single request may take longer.
    static constexpr std::chrono::milliseconds turnTime{50};

    explicit RequestQueue(Services services, QObject *parent = nullptr);

    /// `size` is the length of the message as it came, in bytes.
    void add(const QString &clientId, const QJsonObject &message, qsizetype size);
    /// Runs `departure` once no request of the client waits any more; at once if none does.
    void addDeparture(const QString &clientId, std::function<void()> departure);
    /// Whether a request of this client waits or is being handled.
    bool isBusy(const QString &clientId) const { return m_clients.contains(clientId); }
    /// The end: runs the departures that wait and forgets all requests.
    void finishDepartures();

private:
    /// A request, or a departure.
    struct Entry
    {
        QJsonObject message = {};
        qsizetype size = 0;
        std::function<void()> departure = {};
    };
    struct Client
    {
        std::deque<Entry> waiting;
        qsizetype bytes = 0;
        bool isHeld = false;
        bool isHandling = false;
    };

    void append(const QString &clientId, Entry entry);
    void work();
    void workOn(const QString &clientId);
    Entry takeNext(const QString &clientId);

    const Services m_services;
    /// Those with something to do, and those whose request is being handled.
    QHash<QString, Client> m_clients;
    /// Whose turn is next. Each client that has something to do and is not at it stands here once.
    QQueue<QString> m_turns;
    QTimer m_timer;
};

} // namespace ruvo
