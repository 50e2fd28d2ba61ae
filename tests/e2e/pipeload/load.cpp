// Many clients in one process, on one thread.

#include "pipeload/commands.h"
#include "pipeload/load_client.h"
#include "ruvoctl/request.h"
#include "ruvoctl/standard_streams.h"

#include <QCoreApplication>

#include <algorithm>

namespace ruvo::test {

namespace {

using namespace std::chrono_literals;

/// Starts the clients, replaces those that vanish, and ends when all others are done.
class Fleet : public QObject
{
public:
    Fleet(const LoadPlan &plan, LoadTotals &totals, const QList<quint32> &sessions, quint64 seed,
          std::chrono::milliseconds timeout)
        : m_plan(plan), m_totals(totals), m_sessions(sessions), m_nextSeed(seed), m_timeout(timeout)
    {
        connect(&m_progressTimer, &QTimer::timeout, this, &Fleet::checkProgress);
        m_progressTimer.start(1s);
    }

    void launch(qint64 clients)
    {
        m_working = clients;
        for (qint64 i = 0; i < clients; ++i)
            startClient(m_sessions[i % m_sessions.size()]);
    }

private:
    void startClient(quint32 session)
    {
        auto *client = new LoadClient(m_plan, m_totals, session, m_nextSeed++, this);
        connect(client, &LoadClient::done, this, [this] {
            if (--m_working == 0)
                QCoreApplication::quit();
        });
        connect(client, &LoadClient::vanished, this, [this, client, session] {
            client->deleteLater();
            startClient(session);
        });
        // Queued: a replacement may vanish at once, and its replacement, too.
        QMetaObject::invokeMethod(client, &LoadClient::start, Qt::QueuedConnection);
    }

    void checkProgress()
    {
        const qint64 progress = m_totals.answers + m_totals.vanished;
        if (progress != m_lastProgress || !m_sinceProgress.isValid()) {
            m_lastProgress = progress;
            m_sinceProgress.start();
        } else if (m_sinceProgress.hasExpired(m_timeout.count())) {
            ++m_totals.failures;
            m_totals.firstFailures.append(QStringLiteral("no progress with %1 clients at work").arg(m_working));
            QCoreApplication::quit();
        }
    }

    const LoadPlan &m_plan;
    LoadTotals &m_totals;
    const QList<quint32> m_sessions;
    quint64 m_nextSeed;
    const std::chrono::milliseconds m_timeout;
    QTimer m_progressTimer;
    QElapsedTimer m_sinceProgress;
    qint64 m_lastProgress = 0;
    qint64 m_working = 0;
};

double percentile(std::vector<float> &values, double part)
{
    if (values.empty())
        return 0;
    const auto at = values.begin() + static_cast<std::ptrdiff_t>(part * static_cast<double>(values.size() - 1));
    std::ranges::nth_element(values, at);
    return static_cast<double>(*at);
}

QJsonObject resultOf(LoadTotals &totals, qint64 clients, double seconds)
{
    return {{"command", "load"},
            {"clients", clients},
            {"requests", totals.requests},
            {"heartbeats", totals.heartbeats},
            {"answers", totals.answers},
            {"sentBytes", totals.sentBytes},
            {"receivedBytes", totals.receivedBytes},
            {"unpadded", totals.unpadded},
            {"seconds", seconds},
            {"requestsPerSecond", static_cast<double>(totals.answers) / seconds},
            {"medianLatencyMs", percentile(totals.latenciesMs, 0.5)},
            {"maxLatencyMs", percentile(totals.latenciesMs, 1)},
            {"vanished", totals.vanished},
            {"connectRetries", totals.connectRetries},
            {"failures", totals.failures},
            {"firstFailures", totals.firstFailures}};
}

} // namespace

int runLoad(Arguments arguments)
{
    LoadPlan plan;
    plan.requests = arguments.number("requests", 1000);
    plan.outstanding = std::max<qint64>(1, arguments.number("outstanding", 8));
    plan.maxTotal = arguments.number("max-total", 2LL << 30);
    plan.killPercent = arguments.number("kill-percent", 0, 90);
    plan.sizes.small = arguments.number("small-size", 4096, 64 << 20);
    plan.sizes.large = arguments.number("max-size", 1 << 20, 64 << 20);
    plan.sizes.largePercent = arguments.number("large-percent", 1, 100);
    const QList<quint32> sessions = arguments.sessions("sessions", "1");
    const qint64 clients = arguments.number("clients", 200, 10'000);
    const auto seed = static_cast<quint64>(arguments.number("seed", 1));
    const std::chrono::milliseconds timeout = arguments.milliseconds("timeout", 30'000);
    arguments.expectNoOther();
    if (sessions.isEmpty() || clients == 0)
        throw UsageError("load needs at least one session and one client");
    plan.padding = RequestMix::makePadding(std::max(plan.sizes.small, plan.sizes.large), seed);

    LoadTotals totals;
    QElapsedTimer clock;
    clock.start();
    Fleet fleet(plan, totals, sessions, seed, timeout);
    fleet.launch(clients);
    QCoreApplication::exec();
    const double seconds = static_cast<double>(clock.nsecsElapsed()) / 1e9;
    writeUtf8(STD_OUTPUT_HANDLE, toCompactJson(resultOf(totals, clients, seconds)) + '\n');
    return totals.failures == 0 ? ExitPassed : ExitFailed;
}

} // namespace ruvo::test
