#include "pipeload/probe.h"

#include "ipc/frame.h"
#include "pipeload/raw_pipe.h"
#include "ruvoctl/open_pipe.h"
#include "ruvoctl/request.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QJsonDocument>

#include <algorithm>

namespace ruvo::test {

namespace {

using namespace std::chrono_literals;

constexpr auto retryInterval = 10ms;
constexpr auto probeInterval = 100ms;
constexpr auto probeTimeout = 30s;

std::chrono::milliseconds remaining(const QDeadlineTimer &deadline)
{
    return std::chrono::milliseconds(deadline.remainingTime());
}

bool askOnce(const QString &name, const QDeadlineTimer &deadline)
{
    std::expected<FileHandle, DWORD> handle = openPipe(name, std::min(remaining(deadline), 1000ms));
    if (!handle)
        return false;
    RawPipe pipe(std::move(*handle));
    const QJsonValue id("probe");
    const QByteArray request = encodeFrame(toCompactJson({{"action", "heartbeat"}, {"request-id", id}}));
    if (pipe.write(request, remaining(deadline)) != RawPipe::Outcome::Done)
        return false;

    FrameDecoder decoder;
    QByteArray bytes;
    while (pipe.read(bytes, remaining(deadline)) == RawPipe::Outcome::Done) {
        decoder.append(bytes);
        while (const std::optional<QByteArray> payload = decoder.next()) {
            if (isAnswerTo(id, QJsonDocument::fromJson(*payload).object()))
                return true;
        }
    }
    return false;
}

} // namespace

QJsonObject ProbeResult::toJson() const
{
    return {{"answered", answered}, {"ms", milliseconds}, {"retries", retries}};
}

ProbeResult probeSession(quint32 session, std::chrono::milliseconds timeout)
{
    const QString name = pipeName(session);
    const QDeadlineTimer deadline(timeout);
    QElapsedTimer clock;
    clock.start();
    ProbeResult result;
    while (!(result.answered = askOnce(name, deadline)) && !deadline.hasExpired()) {
        ++result.retries;
        std::this_thread::sleep_for(retryInterval);
    }
    result.milliseconds = static_cast<double>(clock.nsecsElapsed()) / 1e6;
    return result;
}

ProbeSeries::ProbeSeries(const QList<quint32> &sessions)
{
    for (const quint32 session : sessions)
        m_threads.emplace_back([this, session](const std::stop_token &stop) { run(stop, session); });
}

QJsonArray ProbeSeries::finish()
{
    for (std::jthread &thread : m_threads)
        thread.request_stop();
    m_threads.clear();
    return m_results;
}

void ProbeSeries::run(const std::stop_token &stop, quint32 session)
{
    Summary summary;
    while (!stop.stop_requested()) {
        const ProbeResult result = probeSession(session, probeTimeout);
        ++summary.probes;
        if (!result.answered) {
            ++summary.failed;
        } else if (result.retries > 0) {
            ++summary.retried;
            summary.maxRetriedMs = std::max(summary.maxRetriedMs, result.milliseconds);
        } else {
            summary.maxMs = std::max(summary.maxMs, result.milliseconds);
        }
        std::this_thread::sleep_for(probeInterval);
    }
    const std::lock_guard lock(m_mutex);
    m_results.append(QJsonObject{{"session", static_cast<qint64>(session)},
                                 {"probes", summary.probes},
                                 {"failed", summary.failed},
                                 {"maxMs", summary.maxMs},
                                 {"retried", summary.retried},
                                 {"maxRetriedMs", summary.maxRetriedMs}});
}

} // namespace ruvo::test
