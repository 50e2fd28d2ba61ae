#pragma once

#include "common/windows_handles.h"
#include "io/io_operation.h"

#include <atomic>
#include <chrono>
#include <cstdint>

namespace ruvo {

/// What stands behind a socket of the port. Dispatch is by the operation; a socket has one key for all of its
/// operations, so RelaySend is only the name of a relay's sends.
enum class CompletionKey : ULONG_PTR {
    UdpFlow = 1,
    TcpConnection = 2,
    UdpFlowData = 3,
    RelayReceive = 5,
    RelaySend = 6,
    NatAccept = 7,
    UdpNatReceive = 8,
};

/// Calls on `socket` that are done at once are no longer posted to its completion port: who issues them goes on by
/// itself, and saves the way through the port to a worker. False where that cannot be: everything is posted.
bool skipPortOnSuccess(SOCKET socket);

/// The tunnel's one I/O completion port, and the count of what is in flight on it. All but open and close may be
/// called from any thread.
class CompletionPort
{
public:
    /// Not bound to any handle yet; as many threads as there are processors. GetLastError() on failure.
    bool open();
    bool isOpen() const { return static_cast<bool>(m_port); }
    /// Nothing may be in flight any more.
    void close() { m_port.reset(); }

    bool associate(SOCKET socket, CompletionKey key);

    /// Right before a call is issued with `operation`: it is in flight from here on.
    void begin(IoOperation &operation, std::shared_ptr<void> record);
    /// The call was refused, or it was done at once on a socket with skipPortOnSuccess: nothing will complete. Gives
    /// the reference back.
    std::shared_ptr<void> abandon(IoOperation &operation);
    /// The call was done at once on such a socket: its handler is to run on a worker all the same, as if it had taken
    /// time. False: nothing will complete.
    bool post(IoOperation &operation, CompletionKey key, DWORD bytes);

    enum class Outcome {
        Completed, ///< One operation was completed.
        Nothing,   ///< Time-out, or a wake-up.
        Failed,    ///< The port itself failed.
    };
    /// Waits for one completion and runs its handler.
    Outcome runOne(std::chrono::milliseconds timeout);
    /// Ends one wait of another thread.
    void wakeOne();

    /// Runs completions until nothing is in flight; false if something still is after `timeout`. For the shutdown:
    /// the sockets are closed by then.
    bool drain(std::chrono::milliseconds timeout);
    std::int64_t inFlight() const { return m_inFlight; }

private:
    KernelHandle m_port;
    std::atomic<std::int64_t> m_inFlight = 0;
};

} // namespace ruvo
