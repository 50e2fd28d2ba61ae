// Counted over the whole process: no other test of this executable has a note written.

#include "engine/tcp_notes.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace ruvo::test {
namespace {

struct Cap
{
    const char *line;
    TcpNote note;
    std::uint64_t first;
    std::uint64_t every = 0; ///< 0: none but the first
};

const Cap caps[] = {
    {"[CLIENT-SYN]", TcpNote::ClientSyn, 10},
    {"[DATA-ESTABLISHED]", TcpNote::Established, 20},
    {"[FAIL-1]", TcpNote::SocketFailed, 10},
    {"Failed to bind socket:", TcpNote::BindFailed, 10, 100},
    {"[FAIL-2]", TcpNote::AssociateFailed, 10},
    {"[FAIL-3]", TcpNote::NoConnectEx, 10},
    {"[FAIL-4]", TcpNote::ConnectRefused, 10},
    {"[FAIL-5]", TcpNote::ConnectFailed, 10},
    {"[FAIL-6]", TcpNote::MethodRejected, 10},
    {"[FAIL-7]", TcpNote::RequestRejected, 10},
    {"WSASend greeting failed:", TcpNote::HandshakeSendFailed, 10, 100},
    {"[BUFFER WARNING]", TcpNote::NameTooLong, 10, 100},
    {"[DATA-UPLOAD]", TcpNote::UploadStarted, 20},
    {"[UPLOAD BACKPRESSURE]", TcpNote::UploadRefused, 5, 50},
    {"[OOO-BUFFERED]", TcpNote::EarlyKept, 20},
    {"[OOO-PROCESSED]", TcpNote::EarlyQueued, 20},
    {"[DUP-DROP]", TcpNote::OldDropped, 20},
    {"[QUEUE-LARGE]", TcpNote::QueueLarge, 20},
    {"[SEND-PENDING]", TcpNote::SendIssued, 20},
    {"[SEND-FAIL]", TcpNote::SendFailed, 20},
    {"[SOCKS5-SEND]", TcpNote::SendDone, 20},
    {"[DATA-DOWNLOAD]", TcpNote::DownloadStarted, 20},
    {"[BACKPRESSURE] Stopping recv", TcpNote::ReceivePaused, 5, 50},
    {"[BACKPRESSURE] Resuming recv", TcpNote::ReceiveResumed, 5, 50},
    {"[FLOW] Resumed connection", TcpNote::PacketsDrained, 10, 100},
    {"[RECV-EARLY-EXIT]", TcpNote::ReceiveWithoutSocket, 10, 100},
    {"[RECV-ALREADY-PENDING]", TcpNote::ReceiveTwice, 10, 100},
};

TEST(TcpNotes, tableHoldsEveryNoteOnce)
{
    std::set<TcpNote> notes;
    for (const Cap &cap : caps)
        EXPECT_TRUE(notes.insert(cap.note).second) << cap.line;
    EXPECT_EQ(notes.size(), static_cast<std::size_t>(TcpNote::Count_));
}

class EveryTcpNote : public ::testing::TestWithParam<Cap>
{};

TEST_P(EveryTcpNote, isDueAsOftenAsItsCapSays)
{
    const auto &[line, note, first, every] = GetParam();
    std::vector<std::uint64_t> expected;
    std::vector<std::uint64_t> due;
    for (std::uint64_t number = 1; number <= 1000; ++number) {
        if (number <= first || (every != 0 && number % every == 0))
            expected.push_back(number);
        if (isDue(note))
            due.push_back(number);
    }
    EXPECT_EQ(due, expected);
    EXPECT_EQ(capOf(note).first, first);
    EXPECT_EQ(capOf(note).every, every);
}

INSTANTIATE_TEST_SUITE_P(TcpNotes, EveryTcpNote, ::testing::ValuesIn(caps),
                         [](const auto &cap) { return "note" + std::to_string(cap.index); });

} // namespace
} // namespace ruvo::test
