#pragma once

#include "engine/connection_key.h"
#include "engine/engine_services.h"
#include "engine/tcp_stream.h"
#include "io/page_buffer.h"
#include "socks5/port_exchange.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <span>
#include <string>

namespace ruvo {

class TcpEngine;

/// One connection of an application that the engine terminates: its TCP, and the socket that its bytes go on through.
///
/// Handlers run on the reader thread and on the port's workers. m_mutex guards the issuing of calls on the socket
/// against closing; behind it come the stream's own mutexes, and no other. The socket itself is closed by the last
/// reference, when nobody can be inside a call on it: until then closing only cancels.
class TcpConnection : public std::enable_shared_from_this<TcpConnection>
{
public:
    TcpConnection(const ConnectionKey &key, const TcpSender::Opening &opening, TcpEngine &engine);

    const ConnectionKey &key() const { return m_key; }
    TcpStream &stream() { return m_stream; }
    /// As diagnostics count it: the exchange's stage until the connection is established.
    int state();
    /// The application's port, which log lines know a connection by.
    std::uint16_t port() const { return m_key.sourcePort; }
    /// "name or address:port", for log lines.
    QString destination() const;

    /// Connects to the proxy and asks it for the destination. Once.
    void startUpstreamConnect();
    /// Issues the next receive, unless one is in flight.
    void postReceive();
    /// Sends what is queued, unless a chunk is on its way.
    void postSend();

    /// The application has finished: what it sent still goes out, what the upstream sends from now on is dropped.
    void endUpload();
    /// The upstream has finished: what the application sent before still goes out.
    void endDownload();
    enum class Closing { Graceful, Abortive };
    /// No call is issued any more, and what is in flight is cancelled. Abortively, the upstream sees a reset, so that
    /// it does not take what it has for the whole.
    void close(Closing closing);
    /// Whether nothing is left to be done for a connection that has left the table.
    bool isDone();

    /// Ends a handshake with the proxy that takes too long.
    void expireExchange(SteadyTime now);
    /// Whether its time is over: without a word from the application since it was established, or closing without
    /// progress.
    bool isOverdue(SteadyTime now) const;
    /// A packet of the application's. One that comes before the SYN is answered is a stray.
    void noteHeard() { m_isHeard = m_isHeard || m_stream.state() == TcpState::Established; }
    void noteProgress(SteadyTime now) { m_lastProgress = now; }
    SteadyTime lastProgress() const { return m_lastProgress; }

    /// Of TcpEngine, under its waiting list's mutex: whether it stands there.
    bool isListed = false;
    /// Of TcpEngine, under its tables' mutex: whether it is counted as established.
    bool isCounted = false;

private:
    using Result = PortExchange::Outcome;

    static constexpr std::size_t bufferSize = 0x10000;
    static constexpr std::chrono::seconds patience{60};

    /// On a worker: without memory for this connection it ends, and no other.
    template<typename Work>
    void orEnd(const Work &work)
    {
        try {
            work();
        } catch (const std::bad_alloc &) {
            giveUp();
        }
    }
    void giveUp();
    PortExchangePlan plan();
    void onExchangeEnded(Result result);
    void onConnectCompleted(const PortExchangeFailure &failure);
    void onHandshakeCompleted(const PortExchangeFailure &failure);
    void onEstablished(EstablishedExchange established);
    std::optional<DWORD> issueReceive(bool throughPort);
    void receiveMore(bool throughPort);
    void onReceiveCompleted(DWORD bytes, DWORD error);
    bool onUpstreamData(DWORD bytes);
    void issueSend(std::span<const std::uint8_t> bytes);
    void onSendCompleted(DWORD bytes, DWORD error);
    bool takeSent(DWORD bytes);
    void finishUpload();
    bool isClosed();

    const ConnectionKey m_key;
    TcpEngine &m_engine;
    const EngineServices &m_services;
    const UpstreamDecision m_upstream;
    const std::string m_name;
    TcpStream m_stream;
    std::atomic<bool> m_isHeard = false;
    std::atomic<SteadyTime> m_lastProgress;

    std::mutex m_mutex;
    PortExchangePtr m_exchange;
    Socket m_socket;
    bool m_skipsPort = false;
    bool m_isClosed = false;
    bool m_isReceiving = false;
    /// Nothing comes from the upstream any more.
    bool m_isUpstreamEnded = false;
    /// One side has finished: once all that was acknowledged has gone out, the upstream is told.
    bool m_isEnding = false;
    bool m_isShutDown = false;
    PageBuffer<std::uint8_t> m_buffer;
    MemberOperation<&TcpConnection::onReceiveCompleted> m_receive{*this};
    MemberOperation<&TcpConnection::onSendCompleted> m_send{*this};
    DWORD m_sendSize = 0;
};

using TcpConnectionPtr = std::shared_ptr<TcpConnection>;

} // namespace ruvo
