#pragma once

#include "common/endpoint.h"
#include "common/steady_clock.h"
#include "common/windows_handles.h"
#include "io/completion_port.h"
#include "socks5/socks_exchange.h"

#include <atomic>
#include <cstdint>
#include <expected>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace ruvo {

/// What a PortExchange is to do.
struct PortExchangePlan
{
    /// The proxy; or the destination itself, without a request.
    Endpoint peer = {};
    /// What is asked of the proxy (socks5::requestBytes). Nothing: it is over once the connection stands. Empty: once
    /// the proxy has accepted the method.
    std::optional<socks5::Bytes> request = {};
    /// Of the socket, for all of its operations.
    CompletionKey key = CompletionKey::TcpConnection;
    /// Small segments go out at once (TCP_NODELAY).
    bool noDelay = false;
    /// Called once, inside start, with the new socket before it is bound; may be null.
    std::function<void(SOCKET)> prepare = {};
    /// A connection that is given up is reset: its port does not stay in TIME_WAIT.
    bool resetsWhenGivenUp = false;
    /// When expireIfOverdue ends it.
    SteadyTime deadline = SteadyTime::max();
};

/// A connection that stands. Its socket is on the completion port already (a second association fails), blocking as
/// far as calls that are not overlapped go, and nothing is in flight on it. Not one byte was read beyond the reply.
struct EstablishedExchange
{
    Socket socket;
    /// What skipPortOnSuccess said of the socket.
    bool skipsPort = false;
    /// The address in the proxy's reply; nothing if that is no IPv4 address, or nothing was asked.
    std::optional<Endpoint> bound;
    /// When the proxy accepted the method; nothing if nobody was asked.
    std::optional<SteadyTime> acceptedAt = {};
};

/// Why none stands. The socket has been closed.
struct PortExchangeFailure
{
    enum class Step {
        CreateSocket,
        Bind,
        Associate,     ///< `socket` and `port` say with what; `error` is GetLastError()
        FindConnectEx, ///< Winsock has none
        IssueConnect,  ///< ConnectEx was refused at once
        Connect,
        IssueSend,    ///< WSASend of the greeting or request was refused at once
        Send,         ///< it failed later
        IssueReceive, ///< WSARecv of an answer was refused at once
        Receive,      ///< it failed later
        Answer,       ///< the proxy's answer was not the one wanted, or the stream ended before it was whole
    };
    Step step = Step::CreateSocket;
    /// WSAGetLastError(), as a WSA code also where the port knows another; WSAETIMEDOUT in Connect, Send and Receive
    /// if it was overdue. NO_ERROR in Answer.
    int error = NO_ERROR;
    /// From Send on: at which step of the exchange, and what had come of the answer there.
    socks5::SocksFailure socks = {};
    /// When the proxy accepted the method, if it did.
    std::optional<SteadyTime> acceptedAt = {};
    /// In Associate: values for diagnostics, of no use for calls.
    SOCKET socket = INVALID_SOCKET;
    HANDLE port = nullptr;
};

/// Connects a socket and makes a SOCKS5 exchange on it, without a thread: each step is an overlapped call on the
/// completion port, one at a time, and what is done at once goes on without the port. Nothing is logged: its owner
/// knows the texts.
///
/// The outcome comes exactly once, to the callback, without a lock: on a worker, or from inside start if it is known
/// there already, or from inside expireIfOverdue. After cancel it never comes.
///
/// m_mutex guards the issuing of calls against the closing of the socket, which is what ends a call in flight; it is
/// held over Winsock calls that do not wait, and never over the callback. CancelIoEx would be a second call for the
/// same end, and one that Wine looks through all of the process's calls for.
class PortExchange : public std::enable_shared_from_this<PortExchange>
{
public:
    using Outcome = std::expected<EstablishedExchange, PortExchangeFailure>;
    using Callback = std::move_only_function<void(Outcome outcome)>;

    /// Where it stands, numbered as the states of a connection are in diagnostics: the later ones are those of
    /// socks5::ExchangeStep. It keeps the last one.
    static constexpr int connectingStage = 1;

    /// `completionPort` has to outlive it. The callback is destroyed right after its call, or by cancel.
    PortExchange(CompletionPort &completionPort, PortExchangePlan plan, Callback callback);

    /// Once. The caller holds no lock that the callback takes.
    void start();
    /// From any thread, under any lock: the callback is not waited for. True: it was not called and never will be,
    /// and it has been destroyed (in here) with all that it owned. False: the outcome is known already, and the
    /// callback has been called, is running, or is about to run on another thread.
    ///
    /// The socket is closed in here; what is in flight on it completes on the port as cancelled.
    bool cancel();
    /// If it is overdue, gives WSAETIMEDOUT to the callback, right here.
    void expireIfOverdue(SteadyTime now);

    int stage() const { return m_stage; }

private:
    using Step = PortExchangeFailure::Step;

    /// What a failed call is, by what it was to do.
    struct StepsOfCall
    {
        Step connect;
        Step send;
        Step receive;
    };

    // All under m_mutex; the lock that is handed on is released by then, or soon.
    std::optional<PortExchangeFailure> openSocket();
    void goOn(std::unique_lock<std::mutex> lock);
    CompletionPort::Issued issueConnect();
    CompletionPort::Issued issueTransfer();
    std::optional<Outcome> take(DWORD bytes);
    Outcome established();
    int completionError(DWORD portError);
    Outcome failureAt(StepsOfCall steps, int error);
    void giveUpSocket();
    void finish(std::unique_lock<std::mutex> lock, Outcome outcome);

    void onCompleted(DWORD bytes, DWORD error);

    CompletionPort &m_completionPort;
    PortExchangePlan m_plan;
    std::atomic<int> m_stage = connectingStage;

    std::mutex m_mutex;
    /// The outcome is known, or nobody wants it any more. No call is issued from here on.
    bool m_over = false;
    bool m_inFlight = false;
    bool m_skipsPort = false;
    Callback m_callback;
    Socket m_socket;
    socks5::SocksExchange m_exchange;
    std::optional<SteadyTime> m_acceptedAt;
    MemberOperation<&PortExchange::onCompleted> m_operation{*this};
};

using PortExchangePtr = std::shared_ptr<PortExchange>;

} // namespace ruvo
