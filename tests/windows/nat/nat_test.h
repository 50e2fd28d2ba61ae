#pragma once

#include "windows/io/winsock_test.h"
#include "windows/socks5/scripted_proxy.h"

#include "io/completion_port.h"
#include "support/log_capture.h"
#include "support/wait_until.h"

#include <QByteArray>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

namespace ruvo::test {

/// A test with a completion port and its workers, as the tunnel has them. When it ends nothing is in flight any more.
class NatTest : public WinsockTest
{
protected:
    static constexpr unsigned workerCount = 2;

    void SetUp() override;
    void TearDown() override;
    void startWorkers();
    void stopWorkers();

    LogCapture m_log;
    CompletionPort m_port;

private:
    std::atomic<bool> m_stop = false;
    std::vector<std::thread> m_workers;
};

/// Both ends of a stream; the test's end waits 20 s at most, the other one is non-blocking, as the product has it.
struct StreamPair
{
    Socket mine;
    Socket theirs;
};
StreamPair streamPair();

/// Bytes that differ from place to place.
QByteArray pattern(qsizetype size, unsigned seed = 1);
/// Blocking; false if not all of it went out.
bool sendAll(SOCKET socket, const QByteArray &bytes);
/// Exactly so many bytes; fewer at the end of the stream or after an error.
QByteArray receiveBytes(SOCKET socket, qsizetype count);
/// How a stream ends: properly, with a reset, or not at all within 20 s.
enum class Ending { Proper, Reset, None };
/// Reads until the stream ends. What was read comes to `bytes`. Wine may swallow the error of a reset, so that it
/// looks like a proper end: what tells them apart is that one can still send after the latter. A test that has shut
/// down its sending, or stalls, cannot use that and says so.
Ending readToEnd(SOCKET socket, QByteArray *bytes = nullptr, bool canSend = true);
/// Sends until nothing more is taken for half a second; what was sent. Leaves the socket non-blocking.
QByteArray sendUntilStalled(SOCKET socket, unsigned seed = 1);
void resetConnection(Socket &socket);
/// How many lines are written of so many of a kind, where it is the first ten and every hundredth.
constexpr qsizetype cappedLines(qsizetype count)
{
    return count < 10 ? count : 10 + count / 100;
}

/// Listens on 127.0.0.1 and serves each connection by the script on a thread of its own. The script's connections
/// have to have ended when this goes: the product's end is closed first.
class ParallelProxy
{
public:
    /// `number` counts the connections from 0.
    using Script = std::function<void(ProxyConnection &client, int number)>;

    explicit ParallelProxy(Script script);
    ~ParallelProxy();
    ParallelProxy(const ParallelProxy &) = delete;
    ParallelProxy &operator=(const ParallelProxy &) = delete;

    std::uint16_t port() const { return m_portNumber; }
    int connections() const { return m_connections; }

private:
    void serve();

    const Script m_script;
    const Socket m_listener;
    const std::uint16_t m_portNumber;
    std::atomic<bool> m_stop = false;
    std::atomic<int> m_connections = 0;
    std::vector<std::jthread> m_threads;
    std::thread m_acceptor;
};

} // namespace ruvo::test
