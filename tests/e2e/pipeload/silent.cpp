// Clients that connect and never send a byte.

#include "pipeload/commands.h"
#include "pipeload/probe.h"
#include "pipeload/raw_pipe.h"
#include "ruvoctl/open_pipe.h"
#include "ruvoctl/request.h"
#include "ruvoctl/standard_streams.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QJsonArray>

#include <algorithm>
#include <thread>
#include <vector>

namespace ruvo::test {

namespace {

using namespace std::chrono_literals;

constexpr auto connectTimeout = 10s;
constexpr auto lookInterval = 20ms;

class SilentClient
{
public:
    explicit SilentClient(FileHandle pipe) : m_pipe(std::move(pipe)) { m_connected.start(); }

    /// Sees whether something came or the pipe was closed since the last time.
    void look()
    {
        if (m_droppedMs >= 0)
            return;
        QByteArray bytes;
        const RawPipe::Outcome outcome = m_pipe.read(bytes, 0ms);
        if (outcome == RawPipe::Outcome::Closed)
            m_droppedMs = m_connected.elapsed();
        else if (outcome == RawPipe::Outcome::Done && m_greetedMs < 0)
            m_greetedMs = m_connected.elapsed();
    }
    /// In milliseconds after it had connected; -1 if it has not happened.
    qint64 droppedMs() const { return m_droppedMs; }
    qint64 greetedMs() const { return m_greetedMs; }

private:
    RawPipe m_pipe;
    QElapsedTimer m_connected;
    qint64 m_greetedMs = -1;
    qint64 m_droppedMs = -1;
};

/// Ends early when all are dropped.
void watch(std::vector<SilentClient> &clients, std::chrono::milliseconds hold)
{
    const QDeadlineTimer deadline(hold);
    while (!deadline.hasExpired()
           && std::ranges::any_of(clients, [](const SilentClient &client) { return client.droppedMs() < 0; })) {
        std::ranges::for_each(clients, &SilentClient::look);
        std::this_thread::sleep_for(lookInterval);
    }
}

QJsonObject resultOf(const std::vector<SilentClient> &clients)
{
    QJsonArray droppedMs;
    qint64 greeted = 0;
    qint64 maxGreetedMs = -1;
    for (const SilentClient &client : clients) {
        if (client.droppedMs() >= 0)
            droppedMs.append(client.droppedMs());
        greeted += client.greetedMs() >= 0;
        maxGreetedMs = std::max(maxGreetedMs, client.greetedMs());
    }
    return {
        {"command", "silent"},         {"clients", static_cast<qint64>(clients.size())},
        {"greeted", greeted},          {"maxGreetedMs", maxGreetedMs},
        {"dropped", droppedMs.size()}, {"droppedMs", droppedMs},
    };
}

} // namespace

int runSilent(Arguments arguments)
{
    const QString pipe = pipeName(arguments.session());
    const qint64 count = arguments.number("count", 100, 10'000);
    const std::chrono::milliseconds hold = arguments.milliseconds("hold", 20'000);
    const QList<quint32> probed = arguments.sessions("probe", "");
    arguments.expectNoOther();

    std::vector<SilentClient> clients;
    while (static_cast<qint64>(clients.size()) < count) {
        std::expected<FileHandle, DWORD> handle = openPipe(pipe, connectTimeout);
        if (!handle) {
            writeUtf8(STD_ERROR_HANDLE, "pipeload: cannot connect to " + pipe.toUtf8() + '\n');
            return ExitFailed;
        }
        clients.emplace_back(std::move(*handle));
    }
    ProbeSeries probes(probed);
    watch(clients, hold);
    QJsonObject result = resultOf(clients);
    result["probes"] = probes.finish();
    writeUtf8(STD_OUTPUT_HANDLE, toCompactJson(result) + '\n');
    return ExitPassed;
}

} // namespace ruvo::test
