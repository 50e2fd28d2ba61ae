#include "engine/tcp_notes.h"

#include "common/capped_log.h"

#include <array>
#include <cstddef>
#include <utility>

namespace ruvo {

namespace {

constexpr std::size_t noteCount = static_cast<std::size_t>(TcpNote::Count_);

constexpr std::array<TcpNoteCap, noteCount> caps{{
    {TcpNote::ClientSyn, 10, 0},
    {TcpNote::Established, 20, 0},
    {TcpNote::SocketFailed, 10, 0},
    {TcpNote::BindFailed, 10, 100},
    {TcpNote::AssociateFailed, 10, 0},
    {TcpNote::NoConnectEx, 10, 0},
    {TcpNote::ConnectRefused, 10, 0},
    {TcpNote::ConnectFailed, 10, 0},
    {TcpNote::MethodRejected, 10, 0},
    {TcpNote::RequestRejected, 10, 0},
    {TcpNote::HandshakeSendFailed, 10, 100},
    {TcpNote::NameTooLong, 10, 100},
    {TcpNote::UploadStarted, 20, 0},
    {TcpNote::UploadRefused, 5, 50},
    {TcpNote::EarlyKept, 20, 0},
    {TcpNote::EarlyQueued, 20, 0},
    {TcpNote::OldDropped, 20, 0},
    {TcpNote::QueueLarge, 20, 0},
    {TcpNote::SendIssued, 20, 0},
    {TcpNote::SendFailed, 20, 0},
    {TcpNote::SendDone, 20, 0},
    {TcpNote::DownloadStarted, 20, 0},
    {TcpNote::ReceivePaused, 5, 50},
    {TcpNote::ReceiveResumed, 5, 50},
    {TcpNote::PacketsDrained, 10, 100},
    {TcpNote::ReceiveWithoutSocket, 10, 100},
    {TcpNote::ReceiveTwice, 10, 100},
}};

constexpr bool isInOrder()
{
    for (std::size_t i = 0; i < noteCount; ++i) {
        if (static_cast<std::size_t>(caps[i].note) != i)
            return false;
    }
    return true;
}
static_assert(isInOrder(), "each note has its row, at its place");

template<std::size_t... I>
std::array<CappedLog, noteCount> makeLogs(std::index_sequence<I...>)
{
    return {CappedLog(caps[I].first, caps[I].every)...};
}

} // namespace

TcpNoteCap capOf(TcpNote note)
{
    return caps[static_cast<std::size_t>(note)];
}

bool isDue(TcpNote note)
{
    static std::array<CappedLog, noteCount> s_logs = makeLogs(std::make_index_sequence<noteCount>());
    return s_logs[static_cast<std::size_t>(note)].take();
}

} // namespace ruvo
