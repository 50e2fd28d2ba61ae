#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QList>

#include <chrono>
#include <mutex>
#include <thread>

namespace ruvo::test {

/// How a good client fares that connects, asks one thing and leaves.
struct ProbeResult
{
    bool answered = false;
    double milliseconds = 0;
    /// It found no pipe, no free instance of it, or was dropped, and had to try again.
    int retries = 0;

    QJsonObject toJson() const;
};

/// Tries until it is answered or `timeout` is over.
ProbeResult probeSession(quint32 session, std::chrono::milliseconds timeout);

/// Probes sessions again and again, each on a thread of its own, while something else goes on.
class ProbeSeries
{
public:
    explicit ProbeSeries(const QList<quint32> &sessions);
    /// Ends the probes. Per session: how many there were, how many failed, and the longest time to an answer,
    /// apart for those that connected at once and those that had to retry.
    QJsonArray finish();

private:
    struct Summary
    {
        int probes = 0;
        int failed = 0;
        int retried = 0;
        double maxMs = 0;
        double maxRetriedMs = 0;
    };

    void run(const std::stop_token &stop, quint32 session);

    std::mutex m_mutex;
    QJsonArray m_results; // guarded by m_mutex
    std::vector<std::jthread> m_threads;
};

} // namespace ruvo::test
