// Connections that are gone before the daemon can accept them: the case in which a pipe server loses its
// listener.

#include "pipeload/commands.h"
#include "pipeload/probe.h"
#include "ruvoctl/open_pipe.h"
#include "ruvoctl/request.h"
#include "ruvoctl/standard_streams.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>

#include <atomic>

namespace ruvo::test {

namespace {

using namespace std::chrono_literals;

constexpr auto afterTimeout = 60s;

struct Storm
{
    QString pipe;
    QDeadlineTimer deadline;
    std::atomic<qint64> left;
    std::atomic<qint64> connected = 0;
    std::atomic<qint64> busy = 0;
    std::atomic<qint64> missing = 0;

    void blow()
    {
        while (left.fetch_sub(1) > 0 && connectAndDrop()) {}
    }

    bool connectAndDrop()
    {
        while (!deadline.hasExpired()) {
            const std::expected<FileHandle, DWORD> handle = openPipe(pipe, 100ms);
            if (handle) {
                ++connected;
                return true;
            }
            ++(handle.error() == ERROR_PIPE_BUSY ? busy : missing);
            std::this_thread::sleep_for(1ms);
        }
        return false;
    }
};

QJsonArray probeAll(const QList<quint32> &sessions)
{
    QJsonArray results;
    for (const quint32 session : sessions) {
        QJsonObject result = probeSession(session, afterTimeout).toJson();
        result["session"] = static_cast<qint64>(session);
        results.append(result);
    }
    return results;
}

} // namespace

int runStorm(Arguments arguments)
{
    const qint64 count = arguments.number("count", 10'000);
    const qint64 threadCount = arguments.number("threads", 4, 64);
    Storm storm{.pipe = pipeName(arguments.session()),
                .deadline = QDeadlineTimer(arguments.milliseconds("timeout", 120'000)),
                .left = count};
    const QList<quint32> probed = arguments.sessions("probe", "1");
    arguments.expectNoOther();

    ProbeSeries probes(probed);
    QElapsedTimer clock;
    clock.start();
    {
        std::vector<std::jthread> threads;
        for (qint64 i = 0; i < threadCount; ++i)
            threads.emplace_back([&storm] { storm.blow(); });
    }
    const double seconds = static_cast<double>(clock.nsecsElapsed()) / 1e9;
    // At once: this is how long the backlog takes. The probes that still go on are good clients, too.
    const QJsonArray after = probeAll(probed);
    const QJsonObject result{{"command", "storm"},
                             {"connected", storm.connected.load()},
                             {"seconds", seconds},
                             {"busy", storm.busy.load()},
                             {"missing", storm.missing.load()},
                             {"during", probes.finish()},
                             {"after", after}};
    writeUtf8(STD_OUTPUT_HANDLE, toCompactJson(result) + '\n');
    return storm.connected == count ? ExitPassed : ExitFailed;
}

} // namespace ruvo::test
