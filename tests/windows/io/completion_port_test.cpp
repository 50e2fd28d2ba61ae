#include "windows/io/completion_port_fixture.h"

#include "windows/support/call_journal.h"
#include "windows/support/child_process.h"
#include "windows/support/import_redirection.h"

#include <thread>
#include <vector>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;
using Outcome = CompletionPort::Outcome;

TEST_F(CompletionPortTest, isBoundToNothingWhenItIsMade)
{
    CallJournal journal;
    journal.watch<IMPORT(CreateIoCompletionPort)>();
    CompletionPort port;
    EXPECT_FALSE(port.isOpen());
    EXPECT_TRUE(port.open());
    EXPECT_TRUE(port.isOpen());
    EXPECT_EQ(journal.lines(), std::vector<std::string>{"CreateIoCompletionPort(0xffffffffffffffff, null, 0, 0)"});
    port.close();
    EXPECT_FALSE(port.isOpen());
}

TEST_F(CompletionPortTest, saysWhyItCannotBeMade)
{
    CallJournal journal;
    journal.watch<IMPORT(CreateIoCompletionPort)>();
    journal.fail("CreateIoCompletionPort", ERROR_NOT_ENOUGH_MEMORY);
    CompletionPort port;
    EXPECT_FALSE(port.open());
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NOT_ENOUGH_MEMORY});
    EXPECT_FALSE(port.isOpen());
}

TEST_F(CompletionPortTest, knowsASocketByTheKindOfWhatOwnsIt)
{
    const std::pair<CompletionKey, std::string> keys[] = {
        {CompletionKey::UdpFlow, "1"},       {CompletionKey::TcpConnection, "2"}, {CompletionKey::UdpFlowData, "3"},
        {CompletionKey::RelayReceive, "5"},  {CompletionKey::RelaySend, "6"},     {CompletionKey::NatAccept, "7"},
        {CompletionKey::UdpNatReceive, "8"},
    };
    for (const auto &[key, number] : keys) {
        CallJournal journal;
        journal.watch<IMPORT(CreateIoCompletionPort)>();
        const Socket socket(WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED));
        EXPECT_TRUE(m_port.associate(socket.get(), key));
        EXPECT_TRUE(journal.lines().at(0).ends_with(", " + number + ", 0)")) << journal.lines().at(0);
    }
}

TEST_F(CompletionPortTest, doesNotTakeWhatIsNoSocket)
{
    EXPECT_FALSE(m_port.associate(INVALID_SOCKET, CompletionKey::NatAccept));
    EXPECT_FALSE(m_port.associate(SOCKET{0x1234560}, CompletionKey::NatAccept));
}

TEST_F(CompletionPortTest, completesAnOperationWithItsRecord)
{
    postReceive();
    EXPECT_EQ(m_port.inFlight(), 1);
    EXPECT_EQ(m_port.runOne(20ms), Outcome::Nothing);
    answer("hello");
    EXPECT_EQ(m_port.runOne(10s), Outcome::Completed);
    EXPECT_EQ(m_port.inFlight(), 0);
    EXPECT_EQ(m_record->receive.completions, 1);
    EXPECT_EQ(m_record->receive.bytes, 5u);
    EXPECT_EQ(m_record->receive.error, DWORD{NO_ERROR});
    EXPECT_EQ(m_record->receive.record, m_record.get());
    EXPECT_EQ(std::string(m_record->buffer, 5), "hello");
    EXPECT_EQ(m_port.runOne(0ms), Outcome::Nothing);
}

TEST_F(CompletionPortTest, completesWithTheErrorOfWhatFailed)
{
    postReceive();
    const linger now{.l_onoff = 1, .l_linger = 0};
    setsockopt(m_peer.get(), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char *>(&now), sizeof(now));
    m_peer.reset();
    EXPECT_EQ(m_port.runOne(10s), Outcome::Completed);
    EXPECT_EQ(m_record->receive.completions, 1);
    EXPECT_EQ(m_record->receive.error, DWORD{ERROR_NETNAME_DELETED});
    EXPECT_EQ(m_port.inFlight(), 0);
}

TEST_F(CompletionPortTest, keepsARecordAliveWhileWindowsWritesToIt)
{
    postReceive();
    Record *record = m_record.get();
    m_record.reset();
    EXPECT_EQ(m_alive, 1);
    record->receive.onCompletion = [this] { EXPECT_EQ(m_alive, 1); };
    answer("hello");
    EXPECT_EQ(m_port.runOne(10s), Outcome::Completed);
    EXPECT_EQ(m_alive, 0) << "nobody else had it";
}

TEST_F(CompletionPortTest, wakesOneThreadThatWaits)
{
    m_port.wakeOne();
    EXPECT_EQ(m_port.runOne(10s), Outcome::Nothing);
    EXPECT_EQ(m_port.runOne(0ms), Outcome::Nothing);

    std::atomic<int> woken = 0;
    std::vector<std::jthread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            if (m_port.runOne(15s) == Outcome::Nothing)
                ++woken;
        });
    }
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 3; ++i)
        m_port.wakeOne();
    threads.clear();
    EXPECT_EQ(woken, 3);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
}

TEST_F(CompletionPortTest, tellsThatItCannotBeWaitedFor)
{
    CompletionPort closed;
    EXPECT_EQ(closed.runOne(0ms), Outcome::Failed);
}

TEST_F(CompletionPortTest, isDrainedOfWhatClosedSocketsLeave)
{
    postReceive();
    m_record->socket.reset();
    EXPECT_TRUE(m_port.drain(10s));
    EXPECT_EQ(m_port.inFlight(), 0);
    EXPECT_EQ(m_record->receive.completions, 1);
    EXPECT_NE(m_record->receive.error, DWORD{NO_ERROR});
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(m_port.drain(10s)) << "nothing is left";
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s) << "nor is anything waited for";
}

TEST_F(CompletionPortTest, saysThatSomethingIsStillInFlight)
{
    postReceive();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(m_port.drain(100ms));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 90ms);
    EXPECT_EQ(m_port.inFlight(), 1);
    m_record->socket.reset();
    EXPECT_TRUE(m_port.drain(10s));
}

TEST_F(CompletionPortTest, sharesItsWorkAmongThreads)
{
    constexpr int connections = 20;
    constexpr int rounds = 50;
    std::atomic<int> completions = 0;
    const auto receiveByte = [this](const std::shared_ptr<Record> &record) {
        m_port.issue(record->receive, record, false, [&record](DWORD &) {
            WSABUF buffer{1, record->buffer};
            DWORD flags = 0;
            return WSARecv(record->socket.get(), &buffer, 1, nullptr, &flags, &record->receive, nullptr) == 0;
        });
    };
    std::vector<std::shared_ptr<Record>> records;
    std::vector<Socket> peers;
    for (int i = 0; i < connections; ++i) {
        auto [client, server] = connectedSockets();
        auto record = std::make_shared<Record>(m_alive);
        record->socket = std::move(client);
        ASSERT_TRUE(m_port.associate(record->socket.get(), CompletionKey::RelayReceive));
        record->receive.onCompletion = [&completions, &receiveByte, own = record.get(),
                                        weak = std::weak_ptr(record)] {
            ++completions;
            if (own->receive.error != NO_ERROR || own->receive.bytes == 0)
                return;
            receiveByte(weak.lock());
        };
        receiveByte(record);
        records.push_back(std::move(record));
        peers.push_back(std::move(server));
    }
    std::atomic<bool> stop = false;
    std::vector<std::jthread> workers;
    for (int i = 0; i < 4; ++i) {
        workers.emplace_back([&] {
            while (!stop)
                m_port.runOne(50ms);
        });
    }
    for (int round = 0; round < rounds; ++round) {
        for (const Socket &peer : peers)
            ASSERT_EQ(send(peer.get(), "x", 1, 0), 1);
    }
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (completions < connections * rounds && std::chrono::steady_clock::now() < deadline)
        Sleep(1);
    EXPECT_EQ(completions, connections * rounds);
    stop = true;
    workers.clear();
    for (const auto &record : records)
        record->socket.reset();
    EXPECT_TRUE(m_port.drain(10s));
    records.clear();
    EXPECT_EQ(m_alive, 1) << "the fixture's";
}

/// What getsockopt tells of the provider is asked once in a process.
bool skipsPortWithProvider(int result, DWORD serviceFlags)
{
    WSADATA data;
    EXPECT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
    const ImportRedirection<IMPORT(getsockopt)> told([&](SOCKET, int, int, char *value, int *) {
        reinterpret_cast<WSAPROTOCOL_INFOW *>(value)->dwServiceFlags1 = serviceFlags;
        return result;
    });
    const Socket socket(WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED));
    return skipPortOnSuccess(socket.get());
}

TEST_IN_OWN_PROCESS(SkipPortOnSuccess, needsSocketsThatAreHandles)
{
    EXPECT_FALSE(skipsPortWithProvider(0, XP1_GRACEFUL_CLOSE));
}

TEST_IN_OWN_PROCESS(SkipPortOnSuccess, doesNotTrustAProviderThatItCannotAskFor)
{
    EXPECT_FALSE(skipsPortWithProvider(SOCKET_ERROR, XP1_IFS_HANDLES));
}

TEST_IN_OWN_PROCESS(SkipPortOnSuccess, takesTheSystemsSockets)
{
    EXPECT_TRUE(skipsPortWithProvider(0, XP1_IFS_HANDLES | XP1_GRACEFUL_CLOSE));
}

} // namespace
} // namespace ruvo::test
