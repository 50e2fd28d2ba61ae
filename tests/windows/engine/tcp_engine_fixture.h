#pragma once

#include "windows/nat/nat_test.h"

#include "engine/tcp_engine.h"
#include "packet/packet_headers.h"
#include "unit/packet/packet_reference.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace ruvo::test {

/// A packet that the engine wrote.
struct Reply
{
    Endpoint from;
    Endpoint to;
    std::uint32_t seq = 0;
    std::uint32_t ack = 0;
    std::uint8_t flags = 0;
    QByteArray payload;
};

/// Takes what the engine writes, sorted by the application's port, as long as it has room. From any thread.
class FakeAdapter
{
public:
    bool trySend(const std::uint8_t *packet, std::size_t size);
    /// It takes so many packets more, or all.
    void setRoom(std::optional<std::size_t> packets);
    /// The next packet for `port`, waited for; nothing if none comes.
    std::optional<Reply> next(std::uint16_t port, std::chrono::milliseconds timeout = std::chrono::seconds(15));
    /// How many packets for `port` nobody has looked at yet.
    std::size_t unread(std::uint16_t port);
    /// Drops them.
    void forget(std::uint16_t port);
    void forgetAll();

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::optional<std::size_t> m_room;
    std::map<std::uint16_t, std::deque<Reply>> m_replies;
};

/// An application's end of one connection, whose packets the test sends one by one.
class Application
{
public:
    /// `path` is from the application to where it wants to go; `first` is the number of its SYN.
    Application(TcpEngine &engine, FakeAdapter &adapter, FlowKey path, std::uint32_t first = 1000);

    std::uint16_t port() const { return m_path.source.port; }
    /// The next packet of its stream.
    void send(std::uint8_t flags, const QByteArray &payload = {});
    /// A packet numbered `seq`, which is not counted.
    void sendAt(std::uint32_t seq, std::uint8_t flags, const QByteArray &payload = {});
    /// Sends all of it in segments, those that are not acknowledged again, until the last one is.
    bool upload(const QByteArray &bytes);
    /// Opens the connection, as far as the answer to the SYN, and acknowledges that.
    bool connect();
    std::optional<Reply> next() { return m_adapter.next(port()); }
    /// Takes the next packet of the engine's stream; false if none comes, or not the one whose turn it is.
    bool read(std::chrono::milliseconds timeout = std::chrono::seconds(15));
    /// Reads and acknowledges until so many bytes have come in all, or the stream has ended.
    QByteArray download(qsizetype size);

    std::uint32_t nextSequence = 0;    ///< SND.NXT
    std::uint32_t acknowledgement = 0; ///< RCV.NXT
    QByteArray received;
    bool isFinished = false;
    /// The last number of ours that the engine has acknowledged.
    std::uint32_t acknowledged = 0;

private:
    TcpEngine &m_engine;
    FakeAdapter &m_adapter;
    const FlowKey m_path;
};

/// A proxy that agrees to each request and hands the connection to the test.
class StreamProxy
{
public:
    struct Stream
    {
        Socket socket;
        QByteArray request;
    };

    /// `reply` answers the requests, with what may come right behind it.
    explicit StreamProxy(QByteArray reply = QByteArray::fromHex("05000001000000000000"));
    std::uint16_t port() const { return m_tcp.port(); }
    /// The next one, waited for; without socket if none comes.
    Stream take();
    /// The next one that is there already; false if there is none.
    bool takeNow();

private:
    void serve(ProxyConnection &client);

    const QByteArray m_reply;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Stream> m_streams;
    ParallelProxy m_tcp;
};

/// The engine between applications and a proxy that are both the test's. Time passes when the test says so.
class TcpEngineTest : public NatTest
{
protected:
    static constexpr std::uint32_t tunnel = 0x0A060701; // 10.6.7.1
    static constexpr std::uint32_t guest = 0x0A090909;  // 10.9.9.9
    static constexpr std::uint32_t server = 0x5DB8D822; // 93.184.216.34
    inline static const QByteArray greeting = QByteArray::fromHex("050100");
    inline static const QByteArray accepted = QByteArray::fromHex("0500");
    inline static const QByteArray connected = QByteArray::fromHex("05000001000000000000");
    inline static const QByteArray request = QByteArray::fromHex("050100015db8d82201bb");

    void SetUp() override;
    void TearDown() override;

    /// The proxy from now on; or any port of this host.
    void useProxy(std::unique_ptr<StreamProxy> proxy);
    void useScript(ParallelProxy::Script script);
    /// A proxy that says `method` to the greeting and `reply`, if that is not empty, to the request, and closes
    /// behind its last word.
    void useAnswers(const QByteArray &method, const QByteArray &reply = {});
    void usePort(std::uint16_t port) { m_proxyPort = port; }

    Application application(std::uint16_t port, Endpoint to = {server, 443});
    /// One whose connection stands, and the proxy's end of that.
    std::pair<Application, Socket> connectedApplication(std::uint16_t port);
    /// A packet from [fd00::1] to [2001:db8::2].
    void sendIpv6(std::uint16_t port, std::uint8_t flags, std::uint32_t seq, std::uint16_t toPort = 443);

    /// Looks after what waits, as often as the tunnel does, until the test ends.
    void startFlowControl();
    void stopFlowControl();
    /// Looks after it once.
    void drain();
    void pass(std::chrono::seconds time);
    /// Connections that somebody still holds.
    long records() const { return m_token.use_count() - m_tokensOfEngine; }
    /// No connection is left, no operation in flight, and nobody holds a record.
    void expectGone();
    void expectLine(const QString &line);

    FakeAdapter m_adapter;
    EngineServices m_services;
    std::unique_ptr<TcpEngine> m_engine;
    std::unique_ptr<StreamProxy> m_proxy;
    std::unique_ptr<ParallelProxy> m_scripted;
    /// What is said of every destination.
    std::string m_name;
    /// What the engine asked the way to.
    std::vector<Endpoint> m_asked;

private:
    std::mutex m_mutex;
    std::atomic<std::uint16_t> m_proxyPort = 0;
    std::atomic<std::int64_t> m_now = 1'000'000'000'000; // ns
    /// Every record has a copy of the function that holds it.
    std::shared_ptr<int> m_token = std::make_shared<int>();
    long m_tokensOfEngine = 0;
    std::atomic<bool> m_stopsFlowControl = false;
    std::thread m_flowControl;
};

} // namespace ruvo::test
