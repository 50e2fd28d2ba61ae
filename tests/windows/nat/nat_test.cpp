#include "windows/nat/nat_test.h"

namespace ruvo::test {

using namespace std::chrono_literals;

namespace {

void limitWaits(SOCKET socket)
{
    const DWORD timeout = 20000;
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char *>(&timeout), sizeof(timeout));
    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char *>(&timeout), sizeof(timeout));
}

void setBlocking(SOCKET socket, bool on)
{
    u_long nonBlocking = on ? 0 : 1;
    ioctlsocket(socket, static_cast<long>(FIONBIO), &nonBlocking);
}

} // namespace

void NatTest::SetUp()
{
    ASSERT_TRUE(m_port.open());
    startWorkers();
}

void NatTest::TearDown()
{
    stopWorkers();
    EXPECT_TRUE(m_port.drain(10s)) << m_port.inFlight() << " operations are still in flight";
}

void NatTest::startWorkers()
{
    m_stop = false;
    for (unsigned i = 0; i < workerCount; ++i) {
        m_workers.emplace_back([this] {
            while (!m_stop)
                m_port.runOne(100ms);
        });
    }
}

void NatTest::stopWorkers()
{
    m_stop = true;
    for (std::size_t i = 0; i < m_workers.size(); ++i)
        m_port.wakeOne();
    for (std::thread &worker : m_workers)
        worker.join();
    m_workers.clear();
}

StreamPair streamPair()
{
    auto [mine, theirs] = connectedSockets();
    limitWaits(mine.get());
    setBlocking(theirs.get(), false);
    return {std::move(mine), std::move(theirs)};
}

QByteArray pattern(qsizetype size, unsigned seed)
{
    QByteArray bytes(size, Qt::Uninitialized);
    unsigned state = seed;
    for (char &byte : bytes) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<char>(state >> 24);
    }
    return bytes;
}

bool sendAll(SOCKET socket, const QByteArray &bytes)
{
    for (qsizetype done = 0; done < bytes.size();) {
        const int sent = send(socket, bytes.constData() + done, static_cast<int>(bytes.size() - done), 0);
        if (sent <= 0)
            return false;
        done += sent;
    }
    return true;
}

QByteArray receiveBytes(SOCKET socket, qsizetype count)
{
    setBlocking(socket, true);
    QByteArray bytes(count, Qt::Uninitialized);
    qsizetype done = 0;
    while (done < count) {
        const int received = recv(socket, bytes.data() + done, static_cast<int>(count - done), 0);
        if (received <= 0)
            break;
        done += received;
    }
    bytes.truncate(done);
    return bytes;
}

Ending readToEnd(SOCKET socket, QByteArray *bytes, bool canSend)
{
    setBlocking(socket, true);
    char block[0x10000];
    for (;;) {
        const int received = recv(socket, block, sizeof(block), 0);
        if (received == 0)
            return !canSend || send(socket, "?", 1, 0) == 1 ? Ending::Proper : Ending::Reset;
        if (received < 0)
            return WSAGetLastError() == WSAETIMEDOUT ? Ending::None : Ending::Reset;
        if (bytes)
            bytes->append(block, received);
    }
}

QByteArray sendUntilStalled(SOCKET socket, unsigned seed)
{
    constexpr qsizetype more = 64 * 1024 * 1024; // than all buffers on the way
    static const QByteArray s_source = pattern(0x10000, 77);
    setBlocking(socket, false);
    QByteArray sent;
    auto lastProgress = std::chrono::steady_clock::now();
    while (sent.size() < more && std::chrono::steady_clock::now() - lastProgress < 500ms) {
        // What is sent next depends on how much has been sent: the pattern never repeats at the same place.
        const qsizetype offset = (sent.size() + seed) % 0xFFF1;
        const int count = send(socket, s_source.constData() + offset, static_cast<int>(0x10000 - offset), 0);
        if (count > 0) {
            sent.append(s_source.constData() + offset, count);
            lastProgress = std::chrono::steady_clock::now();
        } else {
            Sleep(1);
        }
    }
    return sent;
}

void resetConnection(Socket &socket)
{
    const linger now{.l_onoff = 1, .l_linger = 0};
    setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char *>(&now), sizeof(now));
    socket.reset();
}

ParallelProxy::ParallelProxy(Script script)
    : m_script(std::move(script))
    , m_listener(listeningSocket())
    , m_portNumber(portOf(m_listener.get()))
    , m_acceptor(&ParallelProxy::serve, this)
{}

ParallelProxy::~ParallelProxy()
{
    m_stop = true;
    // A connection of our own ends the accept.
    const Socket last(WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, 0));
    const sockaddr_in address = loopbackAddress(m_portNumber);
    connect(last.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address));
    m_acceptor.join();
}

void ParallelProxy::serve()
{
    for (;;) {
        Socket socket(accept(m_listener.get(), nullptr, nullptr));
        if (m_stop)
            return;
        if (!socket)
            continue;
        m_threads.emplace_back([this, number = m_connections++,
                                client = ProxyConnection(std::move(socket))]() mutable { m_script(client, number); });
    }
}

} // namespace ruvo::test
