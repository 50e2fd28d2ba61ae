#pragma once

#include "common/steady_clock.h"
#include "common/windows_handles.h"
#include "io/completion_port.h"
#include "io/page_buffer.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace ruvo {

/// One accepted connection and its way out, joined byte for byte in both directions.
///
/// Each direction takes turns: a receive of up to 64 KiB, then the whole of it to the other socket, then the next
/// receive. So each socket has at most one receive and one send in flight, and a side that reads slowly or not at all
/// holds up the other side, not a worker: what its socket has no room for goes out by a send in flight. Who finds the
/// next bytes there already goes on with them on the spot, without the way through the completion port, up to a
/// limit.
///
/// Handlers run on the port's workers (what is there at the start: on its thread), two at a time at most (one for
/// each direction). m_mutex guards the issuing of operations against closing, and what one direction does to the
/// other. The sockets are closed by the last reference, when nobody can be inside a call on them any more: until then
/// closing only cancels.
class RelaySession : public std::enable_shared_from_this<RelaySession>
{
public:
    /// After a direction has ended the other may take this long to finish.
    static constexpr std::chrono::seconds endingTime{30};

    /// `onClosed` is called once, on any thread, without a lock. Without memory for the buffers, which is
    /// std::bad_alloc, the sockets stay the caller's.
    RelaySession(std::uint64_t id, Socket &&client, Socket &&destination, bool isDirect,
                 CompletionPort &completionPort, std::function<void()> onClosed);

    /// Puts both sockets on the completion port and starts receiving; relays what is there already. Closes itself if
    /// that fails. A destination that is on the port already comes with what skipPortOnSuccess said of it.
    void start(std::optional<bool> destinationSkipsPort = std::nullopt);
    /// Ends both connections at once, so that neither end takes what it has for the whole.
    void abort();
    /// Closes one that has been ending for longer than endingTime.
    void closeIfOverdue(SteadyTime now);

    std::uint64_t id() const { return m_id; }
    bool isDirect() const { return m_isDirect; }
    std::uint64_t bytesToDestination() const { return m_upload.received; }
    std::uint64_t bytesToClient() const { return m_download.received; }

private:
    /// One of the two connections.
    struct Side
    {
        const Socket socket;
        /// What is done at once is not posted to the completion port.
        bool skipsPort = false;
    };

    /// How far a direction is. Only the thread that has the turn changes it; who issues a call that stays in flight
    /// hands the turn to the thread that handles the completion. All but Relaying are entered under m_mutex: who sees
    /// Receiving or Sending there can cancel that call.
    enum class State {
        Relaying,  ///< A thread has the turn: it passes a chunk on, or is about to issue the next call.
        Receiving, ///< A receive is in flight.
        Sending,   ///< The rest of a chunk is in flight, to a receiver that does not keep up.
        Dropping,  ///< The other direction has ended, and the receiver knows that nothing follows: what still comes
                   ///< is read and dropped, by receives in flight or on the spot.
        Ended,     ///< Nothing comes any more, and the receiver knows.
    };
    /// What comes from one connection and goes to the other.
    struct Direction
    {
        Direction(RelaySession &owner, Side &sender, Side &receiver, const char *failure);

        bool isReceiverTold() const { return state == State::Dropping || state == State::Ended; }
        /// What it waited to receive is there, or the receive has failed. Dropping stays what it is.
        void takeTurn();
        void onReceived(DWORD bytes, DWORD error) { relay.onReceived(*this, bytes, error); }
        void onSent(DWORD bytes, DWORD error) { relay.onSent(*this, bytes, error); }

        RelaySession &relay;
        const Side &from;
        const Side &to;
        /// How a failed receive is logged.
        const char *const receiveFailure;
        std::atomic<State> state = State::Relaying;
        std::atomic<std::uint64_t> received = 0;
        const PageBuffer<char> buffer;
        /// What of the chunk in the buffer has not gone out yet.
        WSABUF rest{};
        MemberOperation<&Direction::onReceived> receive{*this};
        MemberOperation<&Direction::onSent> send{*this};
    };

    enum class Closing { Graceful, Abortive };

    bool associate(Side &side, const char *failure);
    Direction &opposite(const Direction &direction);
    bool isEnding();
    void receiveFrom(Direction &direction);
    std::optional<DWORD> postReceive(Direction &direction, bool throughPort);
    void onReceived(Direction &direction, DWORD bytes, DWORD error);
    bool take(Direction &direction, DWORD bytes);
    bool forward(Direction &direction, DWORD bytes);
    bool sendRest(Direction &direction);
    CompletionPort::Issued postSend(Direction &direction);
    void onSent(Direction &direction, DWORD bytes, DWORD error);
    bool outlivesFailedSend(const Direction &direction);
    void end(Direction &direction);
    static bool isStillConnected(const Side &side);
    static void tellReceiver(Direction &direction, State state);
    static void cancel(Direction &direction);
    void close(Closing closing);

    const std::uint64_t m_id;
    const bool m_isDirect;
    CompletionPort &m_completionPort;
    const std::function<void()> m_onClosed;

    std::mutex m_mutex;
    bool m_closed = false;
    /// When the first direction ended. Under m_mutex.
    std::optional<SteadyTime> m_endingSince;
    // Before the sockets, which are taken only once there are buffers.
    Direction m_upload;
    Direction m_download;
    Side m_client;
    Side m_destination;
};

using RelaySessionPtr = std::shared_ptr<RelaySession>;

} // namespace ruvo
