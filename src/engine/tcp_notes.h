#pragma once

#include <cstdint>

namespace ruvo {

/// The diagnostics of connections that would flood the log: of each only so many are written in a process.
enum class TcpNote {
    ClientSyn,
    Established,
    SocketFailed,
    BindFailed,
    AssociateFailed,
    NoConnectEx,
    ConnectRefused,
    ConnectFailed,
    MethodRejected,
    RequestRejected,
    HandshakeSendFailed,
    NameTooLong,
    UploadStarted,
    UploadRefused,
    EarlyKept,
    EarlyQueued,
    OldDropped,
    QueueLarge,
    SendIssued,
    SendFailed,
    SendDone,
    DownloadStarted,
    ReceivePaused,
    ReceiveResumed,
    PacketsDrained,
    ReceiveWithoutSocket,
    ReceiveTwice,
    Count_,
};

/// Of a note: the first so many are written, and with `every` not 0 also each one of that number.
struct TcpNoteCap
{
    TcpNote note;
    std::uint64_t first;
    std::uint64_t every;
};

TcpNoteCap capOf(TcpNote note);
/// Counts one occurrence; whether its line is to be written. Any thread.
bool isDue(TcpNote note);

} // namespace ruvo
