// Bytes as a test wants them: the commands come from standard input, one a line.

#include "ipc/frame.h"
#include "pipeload/commands.h"
#include "pipeload/raw_pipe.h"
#include "ruvoctl/open_pipe.h"
#include "ruvoctl/request.h"
#include "ruvoctl/standard_streams.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <condition_variable>
#include <iostream>
#include <mutex>
#include <thread>

namespace ruvo::test {

namespace {

using namespace std::chrono_literals;

constexpr auto connectTimeout = 10s;
constexpr auto writeTimeout = 30s;
constexpr auto readSlice = 50ms;

/// Reads on a thread of its own, prints what comes, and counts it.
class Listener
{
public:
    explicit Listener(RawPipe &pipe) : m_thread([this, &pipe](const std::stop_token &stop) { run(stop, pipe); }) {}

    /// True if a message that was not waited for yet is there or comes in time.
    bool waitForMessage(std::chrono::milliseconds timeout)
    {
        std::unique_lock lock(m_mutex);
        if (!m_changed.wait_for(lock, timeout, [this] { return m_received > m_awaited || m_closed; })
            || m_received == m_awaited)
            return false;
        ++m_awaited;
        return true;
    }
    bool waitForDisconnect(std::chrono::milliseconds timeout)
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, timeout, [this] { return m_closed; });
    }
    qint64 received()
    {
        const std::lock_guard lock(m_mutex);
        return m_received;
    }

private:
    void run(const std::stop_token &stop, RawPipe &pipe)
    {
        FrameDecoder decoder;
        QByteArray bytes;
        while (!stop.stop_requested()) {
            const RawPipe::Outcome outcome = pipe.read(bytes, readSlice);
            if (outcome == RawPipe::Outcome::Closed)
                break;
            if (outcome == RawPipe::Outcome::TimedOut)
                continue;
            decoder.append(bytes);
            while (const std::optional<QByteArray> payload = decoder.next())
                take(*payload);
        }
        const std::lock_guard lock(m_mutex);
        m_closed = true;
        m_changed.notify_all();
    }

    void take(const QByteArray &payload)
    {
        const QJsonDocument document = QJsonDocument::fromJson(payload);
        const QJsonObject unreadable{{"unreadable", QString::fromLatin1(payload.toHex())}};
        writeUtf8(STD_OUTPUT_HANDLE, toCompactJson(document.isObject() ? document.object() : unreadable) + '\n');
        const std::lock_guard lock(m_mutex);
        ++m_received;
        m_changed.notify_all();
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    qint64 m_received = 0;
    qint64 m_awaited = 0;
    bool m_closed = false;
    std::jthread m_thread; // last: it uses all of the above
};

class RawSession
{
public:
    explicit RawSession(FileHandle pipe) : m_pipe(std::move(pipe)), m_listener(m_pipe) {}

    /// Follows one line; false when it was the last.
    bool follow(const QByteArray &line)
    {
        ++m_lineNumber;
        const qsizetype blank = line.indexOf(' ');
        const QByteArray word = blank < 0 ? line : line.first(blank);
        const QByteArray rest = blank < 0 ? QByteArray() : line.sliced(blank + 1);
        const std::chrono::milliseconds time(rest.toInt());
        if (word == "close")
            return false;
        if (word == "hex")
            write(QByteArray::fromHex(rest));
        else if (word == "text")
            write(encodeFrame(rest));
        else if (word == "sleep-until-message")
            expect(m_listener.waitForMessage(time), "no message came");
        else if (word == "expect-none")
            expect(!m_listener.waitForMessage(time), "a message came");
        else if (word == "expect-disconnect")
            expect(m_listener.waitForDisconnect(time), "the connection is still there");
        else if (!word.isEmpty())
            expect(false, "unknown command");
        return true;
    }

    QJsonObject result()
    {
        return {{"command", "raw"},
                {"messages", m_listener.received()},
                {"failures", m_failures},
                {"disconnected", m_listener.waitForDisconnect(0ms)}};
    }
    bool passed() const { return m_failures.isEmpty(); }

private:
    void write(const QByteArray &bytes)
    {
        expect(m_pipe.write(bytes, writeTimeout) == RawPipe::Outcome::Done, "the bytes could not be written");
    }
    void expect(bool held, const char *otherwise)
    {
        if (!held)
            m_failures.append(QStringLiteral("line %1: %2").arg(m_lineNumber).arg(QLatin1StringView(otherwise)));
    }

    RawPipe m_pipe;
    Listener m_listener;
    int m_lineNumber = 0;
    QJsonArray m_failures;
};

} // namespace

int runRaw(Arguments arguments)
{
    const QString pipe = pipeName(arguments.session());
    arguments.expectNoOther();
    std::expected<FileHandle, DWORD> handle = openPipe(pipe, connectTimeout);
    if (!handle) {
        writeUtf8(STD_ERROR_HANDLE, "pipeload: cannot connect to " + pipe.toUtf8() + '\n');
        return ExitFailed;
    }
    RawSession session(std::move(*handle));
    std::string line;
    while (std::getline(std::cin, line) && session.follow(QByteArray::fromStdString(line).trimmed())) {}
    writeUtf8(STD_OUTPUT_HANDLE, toCompactJson(session.result()) + '\n');
    return session.passed() ? ExitPassed : ExitFailed;
}

} // namespace ruvo::test
