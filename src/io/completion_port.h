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
    /// For diagnostics.
    HANDLE handle() const { return m_port.get(); }
    /// Nothing may be in flight any more.
    void close() { m_port.reset(); }

    bool associate(SOCKET socket, CompletionKey key);

    /// How a call that was issued went.
    struct Issued
    {
        enum class State {
            InFlight, ///< Its handler runs on a worker.
            Done,     ///< It was done at once, on a socket with skipPortOnSuccess: its handler will not run.
            Failed,   ///< It was refused: its handler will not run.
        };
        State state = State::Failed;
        DWORD bytes = 0; ///< of what is Done
        int error = 0;   ///< of what has Failed: WSAGetLastError()
    };
    /// Issues one overlapped call. `call` gets the count of bytes to fill in, makes the call with `&operation`, and
    /// returns whether it was done at once; if not, WSAGetLastError() tells whether it is pending. `skipsPort` is
    /// what skipPortOnSuccess said of the socket.
    ///
    /// While the call is in flight the operation holds `record`; after anything else the reference is given back
    /// before this returns, so the caller holds one of its own.
    template<typename Call>
    Issued issue(IoOperation &operation, std::shared_ptr<void> record, bool skipsPort, Call &&call)
    {
        begin(operation, std::move(record));
        Issued issued;
        if (call(issued.bytes)) {
            issued.state = skipsPort ? Issued::State::Done : Issued::State::InFlight;
        } else {
            issued.error = WSAGetLastError();
            issued.state = issued.error == WSA_IO_PENDING ? Issued::State::InFlight : Issued::State::Failed;
        }
        if (issued.state != Issued::State::InFlight)
            abandon(operation);
        return issued;
    }

    /// What was Done is to be completed all the same: the handler runs on a worker, as if the call had taken time.
    /// False: the port refuses, and nothing will complete.
    bool post(IoOperation &operation, std::shared_ptr<void> record, CompletionKey key, DWORD bytes);

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
    /// The operation is in flight from here on.
    void begin(IoOperation &operation, std::shared_ptr<void> record);
    /// Nothing will complete after all. Gives the reference up.
    void abandon(IoOperation &operation);

    KernelHandle m_port;
    std::atomic<std::int64_t> m_inFlight = 0;
};

} // namespace ruvo
