// Many packets. Speeds are printed, not judged: they belong to the machine.

#include "namespace/bench_files.h"
#include "namespace/linux_command.h"
#include "wintun/udp_packet.h"
#include "wintun/wintun_library.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

namespace ruvo::test {

namespace {

using ::testing::HasSubstr;
using Clock = std::chrono::steady_clock;

constexpr USHORT somePort = 4000;

std::string numbered(int sender, int number)
{
    char text[32];
    std::snprintf(text, sizeof text, "%d %d", sender, number);
    return text;
}

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Turns an echo request into its answer. Both checksums stay right but for the ICMP type, which is adjusted.
bool turnIntoEchoAnswer(BYTE *packet, DWORD size)
{
    constexpr BYTE icmp = 1;
    constexpr BYTE echoRequest = 8;
    if (size < 28 || packet[0] != 0x45 || packet[9] != icmp || packet[20] != echoRequest)
        return false;
    std::swap_ranges(packet + 12, packet + 16, packet + 16);
    packet[20] = 0;
    unsigned sum = (unsigned{packet[22]} << 8 | packet[23]) + (unsigned{echoRequest} << 8);
    sum = (sum & 0xFFFF) + (sum >> 16);
    packet[22] = static_cast<BYTE>(sum >> 8);
    packet[23] = static_cast<BYTE>(sum);
    return true;
}

} // namespace

TEST_F(WintunSessionTest, answersFiftyThousandFloodPingsWithoutLoss)
{
    LinuxCommand ping("ping -q -f -c 50000 -w 60 10.9.0.2");
    std::atomic<bool> done = false;
    std::thread responder([&] {
        const HANDLE event = m_wintun.readWaitEvent(m_session);
        while (!done) {
            DWORD size = 0;
            BYTE *packet = m_wintun.receive(m_session, &size);
            if (!packet) {
                WaitForSingleObject(event, 100);
                continue;
            }
            std::vector<BYTE> answer(packet, packet + size);
            m_wintun.release(m_session, packet);
            if (turnIntoEchoAnswer(answer.data(), size))
                sendWhole(answer);
        }
    });
    const auto start = Clock::now();
    const auto result = ping.wait(std::chrono::seconds(70));
    const double seconds = secondsSince(start);
    done = true;
    responder.join();
    ASSERT_TRUE(result);
    EXPECT_EQ(result->status, 0);
    EXPECT_THAT(result->output, HasSubstr("50000 packets transmitted, 50000 received, 0% packet loss"));
    std::printf("flood ping: %.0f round trips a second\n%s", 50000 / seconds, result->output.c_str());
}

TEST_F(WintunSessionTest, keepsTheOrderOfEachOfFourParallelSendersAndLosesNothing)
{
    constexpr int senders = 4;
    constexpr int packetsEach = 20000;
    constexpr int mostUnderWay = 64; // what a socket's buffer bears, whatever Linux's limits are
    const UdpSocket socket(nearAddress);
    const USHORT port = socket.port();
    std::atomic<int> sent = 0;
    std::atomic<int> received = 0;
    std::atomic<bool> failed = false;
    const auto start = Clock::now();
    std::vector<std::thread> threads;
    for (int sender = 0; sender < senders; ++sender) {
        threads.emplace_back([&, sender] {
            for (int i = 0; i < packetsEach && !failed; ++i) {
                while (sent.load() - received.load() > mostUnderWay && !failed)
                    SwitchToThread();
                ++sent;
                sendWhole(udpPacket(farAddress, nearAddress, {somePort, port}, numbered(sender, i)));
            }
        });
    }
    std::array<int, senders> expected{};
    for (int count = 0; count < senders * packetsEach && !failed; ++count) {
        const std::string payload = socket.receive();
        const int sender = payload[0] - '0';
        failed = sender < 0 || sender >= senders
                 || payload != numbered(sender, expected[static_cast<std::size_t>(sender)]++);
        EXPECT_FALSE(failed) << payload;
        ++received;
    }
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_THAT(expected, ::testing::Each(packetsEach));
    std::printf("parallel senders: %.0f packets a second\n", senders * packetsEach / secondsSince(start));
}

TEST_F(WintunSessionTest, printsItsThroughput)
{
    constexpr int count = 200000;
    constexpr std::size_t packetSize = 1400;
    const std::string payload(packetSize - 28, 'x');

    // To a port without a socket: into Linux's stack, and no further.
    const auto packet = udpPacket(farAddress, 0x0A0900FF, {somePort, somePort}, payload);
    auto start = Clock::now();
    for (int i = 0; i < count; ++i)
        sendWhole(packet);
    const double sending = secondsSince(start);

    std::atomic<bool> stop = false;
    std::thread source([&] {
        const UdpSocket socket(nearAddress);
        while (!stop)
            socket.sendTo(farAddress, somePort, payload);
    });
    start = Clock::now();
    for (int i = 0; i < count; ++i) {
        DWORD size = 0;
        BYTE *received = receiveWaiting(size);
        if (!received || size != packetSize) {
            ADD_FAILURE() << "nothing received";
            break;
        }
        m_wintun.release(m_session, received);
    }
    const double receiving = secondsSince(start);
    stop = true;
    for (DWORD size = 0; BYTE *rest = receiveWaiting(size, 100);) // until the source is through
        m_wintun.release(m_session, rest);
    source.join();

    m_wintun.endSession(m_session);
    m_session = nullptr;
    EXPECT_THAT(journal("WintunEndSession"), ::testing::ElementsAre(HasSubstr("\"sent\":200000,")));
    constexpr double gigabits = count * packetSize * 8 / 1e9;
    std::printf(
        "1400-byte packets, one thread: %.0f sent a second (%.2f Gbit/s), %.0f received a second (%.2f Gbit/s)\n",
        count / sending, gigabits / sending, count / receiving, gigabits / receiving);
}

} // namespace ruvo::test
