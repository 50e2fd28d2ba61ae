// A client that sends requests with large request-ids, which the answers repeat, and never reads.

#include "ipc/frame.h"
#include "pipeload/commands.h"
#include "pipeload/raw_pipe.h"
#include "ruvoctl/open_pipe.h"
#include "ruvoctl/request.h"
#include "ruvoctl/standard_streams.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>

#include <thread>

namespace ruvo::test {

namespace {

using namespace std::chrono_literals;

constexpr auto connectTimeout = 10s;
constexpr auto writeTimeout = 30s;
/// While it only waits: often enough to notice the disconnect soon, which a pipe that is not read tells to
/// nobody but a writer.
constexpr auto heartbeatInterval = 100ms;
constexpr qint64 heartbeatWhileSendingMs = 3000;

class DeafClient
{
public:
    explicit DeafClient(FileHandle pipe) : m_pipe(std::move(pipe)) { m_clock.start(); }

    /// False once the daemon has disconnected (or takes no more).
    bool send(const QByteArray &frame)
    {
        m_outcome = m_pipe.write(frame, writeTimeout);
        if (m_outcome != RawPipe::Outcome::Done)
            return false;
        m_sentBytes += frame.size();
        return true;
    }

    bool flood(qint64 bytes, const QByteArray &request)
    {
        QElapsedTimer sinceHeartbeat;
        sinceHeartbeat.start();
        while (m_sentBytes < bytes) {
            if (!send(request))
                return false;
            if (sinceHeartbeat.elapsed() < heartbeatWhileSendingMs)
                continue;
            if (!send(heartbeat()))
                return false;
            sinceHeartbeat.start();
        }
        return true;
    }

    void stay(std::chrono::milliseconds hold)
    {
        const QDeadlineTimer deadline(hold);
        while (!deadline.hasExpired() && send(heartbeat()))
            std::this_thread::sleep_for(heartbeatInterval);
    }

    QJsonObject result() const
    {
        const bool disconnected = m_outcome == RawPipe::Outcome::Closed;
        return {{"command", "deaf"},
                {"sentBytes", m_sentBytes},
                {"disconnected", disconnected},
                {"disconnectedMs", disconnected ? m_clock.elapsed() : -1},
                {"writeTimedOut", m_outcome == RawPipe::Outcome::TimedOut}};
    }

private:
    static QByteArray heartbeat() { return encodeFrame(R"({"action":"heartbeat"})"); }

    RawPipe m_pipe;
    QElapsedTimer m_clock;
    RawPipe::Outcome m_outcome = RawPipe::Outcome::Done;
    qint64 m_sentBytes = 0;
};

} // namespace

int runDeaf(Arguments arguments)
{
    const QString pipe = pipeName(arguments.session());
    const qint64 bytes = arguments.number("bytes", 128LL * 1024 * 1024);
    const qint64 requestSize = arguments.number("request-size", 64 * 1024, 64 * 1024 * 1024);
    const std::chrono::milliseconds hold = arguments.milliseconds("hold", 10'000);
    arguments.expectNoOther();

    std::expected<FileHandle, DWORD> handle = openPipe(pipe, connectTimeout);
    if (!handle) {
        writeUtf8(STD_ERROR_HANDLE, "pipeload: cannot connect to " + pipe.toUtf8() + '\n');
        return ExitFailed;
    }
    DeafClient client(std::move(*handle));
    const QByteArray request =
        encodeFrame(toCompactJson({{"action", "nosuch"}, {"request-id", QString(requestSize, QLatin1Char('x'))}}));
    if (client.flood(bytes, request))
        client.stay(hold);
    writeUtf8(STD_OUTPUT_HANDLE, toCompactJson(client.result()) + '\n');
    return ExitPassed;
}

} // namespace ruvo::test
