// What a test has planned for packets on their way (packets.txt).

#include "namespace/bench_files.h"
#include "wintun/udp_packet.h"
#include "wintun/wintun_library.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace ruvo::test {

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr USHORT somePort = 4000;
constexpr int count = 100; // what waits in a socket's buffer at once

std::vector<int> numbersInOrder()
{
    std::vector<int> numbers(count);
    for (int i = 0; i < count; ++i)
        numbers[static_cast<std::size_t>(i)] = i;
    return numbers;
}

} // namespace

class WintunDisorderTest : public WintunSessionTest
{
protected:
    /// A session that follows this plan from its first packet on.
    void startWith(const std::string &plan)
    {
        m_wintun.endSession(m_session);
        writeBenchFile("packets.txt", plan);
        m_session = m_wintun.startSession(m_adapter, capacity);
        ASSERT_TRUE(m_session);
    }

    /// The numbers of the packets as they come in, when so many wait and none follows.
    std::vector<int> numbersThatCome()
    {
        const UdpSocket socket(nearAddress);
        for (int i = 0; i < count; ++i)
            EXPECT_TRUE(socket.sendTo(farAddress, somePort, std::to_string(i)));
        std::vector<int> numbers;
        DWORD size = 0;
        while (BYTE *packet = receiveWaiting(size, 200)) {
            numbers.push_back(std::stoi(std::string(udpPayload({packet, size}))));
            m_wintun.release(m_session, packet);
        }
        return numbers;
    }

    void endSession()
    {
        m_wintun.endSession(m_session);
        m_session = nullptr;
    }
};

TEST_F(WintunDisorderTest, keepsTheOrderWithoutAPlan)
{
    EXPECT_EQ(numbersThatCome(), numbersInOrder());
    endSession();
    EXPECT_THAT(journal("\"overtaken\""), IsEmpty());
}

TEST_F(WintunDisorderTest, letsSomePacketsBeOvertakenByAFewAndLosesNone)
{
    startWith("seed 7\nreorder 20 4\n");
    std::vector<int> numbers = numbersThatCome();
    EXPECT_NE(numbers, numbersInOrder());
    int overtaken = 0;
    for (std::size_t place = 0; place < numbers.size(); ++place) {
        const int distance = static_cast<int>(place) - numbers[place];
        EXPECT_LE(distance, 4) << "packet " << numbers[place];
        overtaken += distance > 0;
    }
    EXPECT_GT(overtaken, count / 20);
    std::ranges::sort(numbers);
    EXPECT_EQ(numbers, numbersInOrder());
    endSession();
    EXPECT_THAT(journal("\"overtaken\""), ElementsAre(HasSubstr("\"repeated\":0")));
}

TEST_F(WintunDisorderTest, letsSomePacketsComeTwice)
{
    startWith("seed 7\nduplicate 20 4\n");
    std::vector<int> numbers = numbersThatCome();
    const auto repeated = numbers.size() - std::set(numbers.begin(), numbers.end()).size();
    EXPECT_GT(repeated, 5U);
    std::ranges::sort(numbers);
    const auto [rest, last] = std::ranges::unique(numbers);
    numbers.erase(rest, last);
    EXPECT_EQ(numbers, numbersInOrder());
    endSession();
    EXPECT_THAT(journal("\"overtaken\":0,\"repeated\":" + std::to_string(repeated)), SizeIs(1));
}

TEST_F(WintunDisorderTest, decidesTheSameForTheSameSeed)
{
    std::vector<std::vector<int>> runs;
    for (const char *seed : {"seed 7\n", "seed 7\n", "seed 8\n"}) {
        startWith(std::string(seed) + "reorder 20 4\nduplicate 20 4\n");
        runs.push_back(numbersThatCome());
    }
    EXPECT_EQ(runs[0], runs[1]);
    EXPECT_NE(runs[0], runs[2]);
}

TEST_F(WintunDisorderTest, keepsAPacketOnlyForAMomentWhenNoneFollows)
{
    startWith("reorder 100 4\n");
    const UdpSocket socket(nearAddress);
    for (const char *text : {"one", "two"}) {
        ASSERT_TRUE(socket.sendTo(farAddress, somePort, text));
        DWORD size = 0;
        BYTE *packet = receiveWaiting(size, 2000);
        ASSERT_TRUE(packet);
        EXPECT_EQ(udpPayload({packet, size}), text);
        m_wintun.release(m_session, packet);
    }
}

TEST_F(WintunDisorderTest, hasAFullRingForAsLongAsPlanned)
{
    startWith("full 200 200\n");
    const auto packet = udpPacket(farAddress, nearAddress, {somePort, somePort}, "hello");
    int changes = 0;
    bool wasFull = false;
    const auto deadline = GetTickCount64() + 10'000;
    while (changes < 5) {
        ASSERT_LT(GetTickCount64(), deadline);
        BYTE *place = m_wintun.allocate(m_session, static_cast<DWORD>(packet.size()));
        if (place) {
            std::memcpy(place, packet.data(), packet.size());
            m_wintun.send(m_session, place);
        } else {
            EXPECT_EQ(GetLastError(), DWORD{ERROR_BUFFER_OVERFLOW});
        }
        changes += wasFull != !place;
        wasFull = !place;
        Sleep(1);
    }
    writeBenchFile("packets.txt", "");
    Sleep(100); // it is looked at 20 times a second
    const auto opened = GetTickCount64();
    while (GetTickCount64() - opened < 500) {
        BYTE *place = m_wintun.allocate(m_session, static_cast<DWORD>(packet.size()));
        ASSERT_TRUE(place);
        std::memcpy(place, packet.data(), packet.size());
        m_wintun.send(m_session, place);
        Sleep(1);
    }
    endSession();
    // Of two sessions the first was without a plan.
    EXPECT_THAT(journal("WintunEndSession"), SizeIs(2));
    EXPECT_THAT(journal("\"refused-full\":0,"), SizeIs(1));
}

TEST_F(WintunDisorderTest, writesDownWhatItDoesNotUnderstand)
{
    startWith("reorder many 4\nreorder 20 0\ndrop 10\nfull 10\n");
    EXPECT_EQ(numbersThatCome(), numbersInOrder());
    EXPECT_THAT(journal("not-understood"),
                ElementsAre(HasSubstr("reorder"), HasSubstr("reorder"), HasSubstr("drop"), HasSubstr("full")));
}

} // namespace ruvo::test
