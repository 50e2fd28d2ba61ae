#pragma once

#include "common/windows_handles.h"
#include "io/completion_port.h"
#include "io/page_buffer.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace ruvo {

/// One accepted connection and its way out, joined byte for byte in both directions.
///
/// Each direction takes turns: a receive of up to 64 KiB, then the whole of it to the other socket, then the next
/// receive. So each socket has at most one receive and one send in flight, and a side that does not read holds up the
/// other side, not a worker. Who finds the next bytes there already goes on with them on the spot, without the way
/// through the completion port, up to a limit.
///
/// Handlers run on the port's workers (what is there at the start: on its thread), two at a time at most (one for
/// each direction). m_mutex guards the issuing of operations against closing. The sockets are closed by the last
/// reference, when nobody can be inside a call on them any more: until then closing only cancels.
class RelaySession : public std::enable_shared_from_this<RelaySession>
{
public:
    /// After a direction has ended the other may take this long to finish.
    static constexpr std::int64_t endingTime = 30'000'000'000; // ns

    /// `onClosed` is called once, on any thread, without a lock.
    RelaySession(std::uint64_t id, Socket client, Socket destination, bool isDirect, CompletionPort &completionPort,
                 std::function<void()> onClosed);

    /// Puts both sockets on the completion port and starts receiving; relays what is there already. Closes itself if
    /// that fails. A destination that is on the port already comes with what skipPortOnSuccess said of it.
    void start(std::optional<bool> destinationSkipsPort = std::nullopt);
    /// Ends both connections at once, so that neither end takes what it has for the whole.
    void abort();
    /// Closes one that has been ending for longer than endingTime.
    void closeIfOverdue(std::int64_t now);

    std::uint64_t id() const { return m_id; }
    bool isDirect() const { return m_isDirect; }
    std::uint64_t bytesToDestination() const { return m_client.received; }
    std::uint64_t bytesToClient() const { return m_destination.received; }

private:
    class ReceiveOperation : public IoOperation
    {
    protected:
        void completed(const std::shared_ptr<void> &record, DWORD bytes, DWORD error) noexcept override;
    };
    class SendOperation : public IoOperation
    {
    protected:
        void completed(const std::shared_ptr<void> &record, DWORD bytes, DWORD error) noexcept override;
    };
    /// One of the two connections, and what is read from it.
    struct Side
    {
        Side(Socket owned, const char *failure);

        const Socket socket;
        /// How a failed receive is logged.
        const char *const receiveFailure;
        /// What is done at once is not posted to the completion port.
        bool skipsPort = false;
        ReceiveOperation receive;
        std::atomic<bool> receivePending = false;
        const PageBuffer<char> buffer;
        std::atomic<std::uint64_t> received = 0;
        /// What goes to this side while it does not keep up: a part of the other side's buffer.
        SendOperation send;
        std::atomic<bool> sendPending = false;
        WSABUF unsent{};
        bool stalled = false;
        /// The last chunk for it had to wait.
        bool delayed = false;
        /// Nothing comes from it any more.
        std::atomic<bool> ended = false;
        /// It has been told that nothing follows. Under m_mutex.
        bool finished = false;
    };

    enum class Issued { InFlight, Done, Failed };

    bool associate(Side &side, const char *failure);
    Side &sideOf(const ReceiveOperation *operation);
    Side &sideOf(const SendOperation *operation);
    Side &otherSide(const Side &side);
    void receiveFrom(Side &side);
    std::optional<DWORD> postReceive(Side &side, bool throughPort);
    bool sendRest(Side &to);
    Issued postSend(Side &to);
    void onReceived(Side &from, DWORD bytes, DWORD error);
    void onSent(Side &to, DWORD bytes, DWORD error);
    bool take(Side &from, DWORD bytes);
    bool forward(Side &from, DWORD bytes);
    bool outlivesFailedSend(Side &to);
    void end(Side &side);
    static bool isStillConnected(const Side &side);
    static void finish(Side &side);
    bool isFinished(const Side &side);
    enum class Closing { Graceful, Abortive };
    void close(Closing closing);

    const std::uint64_t m_id;
    const bool m_isDirect;
    CompletionPort &m_completionPort;
    const std::function<void()> m_onClosed;

    std::mutex m_mutex;
    bool m_closed = false;
    Side m_client;
    Side m_destination;
    /// When the first direction ended, in nanoseconds of the steady clock; 0 before.
    std::atomic<std::int64_t> m_endingSince = 0;
};

using RelaySessionPtr = std::shared_ptr<RelaySession>;

} // namespace ruvo
