#include "namespace/bench_files.h"
#include "namespace/linux_command.h"
#include "wintun/udp_packet.h"
#include "wintun/wintun_library.h"

#include <gmock/gmock.h>

#include <cstring>
#include <string>
#include <thread>

namespace ruvo::test {

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr USHORT somePort = 4000;

} // namespace

TEST_F(WintunSessionTest, wantsACapacityWithinTheLimits)
{
    m_wintun.endSession(m_session);
    for (const DWORD wrong : {DWORD{0}, DWORD{0x10000}, DWORD{0x20001}, DWORD{0x30000}, DWORD{0x8000000}}) {
        m_session = m_wintun.startSession(m_adapter, wrong);
        EXPECT_EQ(m_session, nullptr) << wrong;
        EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_PARAMETER});
    }
    for (const DWORD right : {DWORD{0x20000}, DWORD{0x1000000}, DWORD{0x4000000}}) {
        m_session = m_wintun.startSession(m_adapter, right);
        EXPECT_TRUE(m_session) << right;
        m_wintun.endSession(m_session);
    }
    m_session = nullptr;
}

TEST_F(WintunSessionTest, isTheOnlyOneOfItsAdapter)
{
    EXPECT_EQ(m_wintun.startSession(m_adapter, capacity), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ALREADY_INITIALIZED});
    const auto opened = m_wintun.openAdapter(L"test");
    EXPECT_EQ(m_wintun.startSession(opened, capacity), nullptr);
    m_wintun.endSession(m_session);
    m_session = m_wintun.startSession(opened, capacity);
    EXPECT_TRUE(m_session);
    m_wintun.closeAdapter(opened);
}

TEST_F(WintunSessionTest, setsItsEventWhenAPacketComesForAReaderThatFoundNone)
{
    DWORD size = 0;
    EXPECT_EQ(m_wintun.receive(m_session, &size), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NO_MORE_ITEMS});
    const HANDLE event = m_wintun.readWaitEvent(m_session);
    EXPECT_EQ(WaitForSingleObject(event, 0), DWORD{WAIT_TIMEOUT});

    const UdpSocket socket(nearAddress);
    ASSERT_TRUE(socket.sendTo(farAddress, somePort, "hello"));
    EXPECT_EQ(WaitForSingleObject(event, 5000), DWORD{WAIT_OBJECT_0});
    BYTE *packet = m_wintun.receive(m_session, &size);
    ASSERT_TRUE(packet);
    EXPECT_EQ(udpPayload({packet, size}), "hello");
    m_wintun.release(m_session, packet);
    EXPECT_EQ(m_wintun.receive(m_session, &size), nullptr);
    EXPECT_EQ(WaitForSingleObject(event, 0), DWORD{WAIT_TIMEOUT});
}

TEST_F(WintunSessionTest, takesPacketsBackInAnyOrder)
{
    const UdpSocket socket(nearAddress);
    constexpr int rounds = 40;
    constexpr int packetsARound = 200;
    const std::string filling(1000, '.'); // twice the ring's capacity in all
    for (int round = 0; round < rounds; ++round) {
        std::vector<BYTE *> held;
        for (int i = 0; i < packetsARound; ++i)
            ASSERT_TRUE(socket.sendTo(farAddress, somePort, std::to_string(i) + filling));
        for (int i = 0; i < packetsARound; ++i) {
            DWORD size = 0;
            BYTE *packet = receiveWaiting(size);
            ASSERT_TRUE(packet) << round << "/" << i;
            ASSERT_EQ(udpPayload({packet, size}), std::to_string(i) + filling);
            held.push_back(packet);
        }
        // Every second one, then the others from behind.
        for (std::size_t i = 0; i < held.size(); i += 2)
            m_wintun.release(m_session, held[i]);
        for (std::size_t i = held.size(); i-- > 0;) {
            if (i % 2 == 1)
                m_wintun.release(m_session, held[i]);
        }
    }
    EXPECT_THAT(journal("misuse"), IsEmpty());
}

TEST_F(WintunSessionTest, hasNoRoomForMoreThanItsCapacityOfUnreleasedPackets)
{
    m_wintun.endSession(m_session);
    constexpr DWORD smallest = 0x20000;
    m_session = m_wintun.startSession(m_adapter, smallest);
    ASSERT_TRUE(m_session);
    const UdpSocket socket(nearAddress);
    const std::string filling(1000, '.');
    std::vector<BYTE *> held;
    DWORD size = 0;
    for (DWORD sent = 0; sent <= smallest / 1000 + 10; ++sent) {
        ASSERT_TRUE(socket.sendTo(farAddress, somePort, std::to_string(sent) + filling));
        BYTE *packet = receiveWaiting(size, 500);
        if (!packet)
            break;
        held.push_back(packet);
    }
    // The last wait found nothing, though a packet was there.
    ASSERT_GT(held.size(), smallest / 1100);
    EXPECT_LT(held.size(), smallest / 1000);
    EXPECT_EQ(m_wintun.receive(m_session, &size), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_NO_MORE_ITEMS});

    const HANDLE event = m_wintun.readWaitEvent(m_session);
    m_wintun.release(m_session, held[0]);
    EXPECT_EQ(WaitForSingleObject(event, 5000), DWORD{WAIT_OBJECT_0});
    BYTE *packet = m_wintun.receive(m_session, &size);
    ASSERT_TRUE(packet);
    EXPECT_EQ(udpPayload({packet, size}), std::to_string(held.size()) + filling);
}

TEST_F(WintunSessionTest, carriesPacketsUpToTheLargestInBothDirections)
{
    const UdpSocket socket(nearAddress);
    for (const std::size_t length : {0U, 1U, 1000U, 1473U, 9000U, 65507U}) {
        const std::string payload(length, 'x');
        ASSERT_TRUE(socket.sendTo(farAddress, somePort, payload)) << length;
        DWORD size = 0;
        BYTE *packet = receiveWaiting(size);
        ASSERT_TRUE(packet) << length;
        EXPECT_EQ(udpPayload({packet, size}), payload);
        m_wintun.release(m_session, packet);

        sendWhole(udpPacket(farAddress, nearAddress, {somePort, socket.port()}, payload));
        EXPECT_EQ(socket.receive(), payload);
    }
}

TEST_F(WintunSessionTest, sendsInTheOrderOfTheAllocations)
{
    const UdpSocket socket(nearAddress);
    std::vector<BYTE *> places;
    for (const std::string text : {"one", "two", "three"}) {
        const auto packet = udpPacket(farAddress, nearAddress, {somePort, socket.port()}, text);
        places.push_back(m_wintun.allocate(m_session, static_cast<DWORD>(packet.size())));
        ASSERT_TRUE(places.back());
        std::memcpy(places.back(), packet.data(), packet.size());
    }
    m_wintun.send(m_session, places[2]);
    m_wintun.send(m_session, places[1]);
    EXPECT_EQ(socket.receive(false), "(nothing)");
    m_wintun.send(m_session, places[0]);
    EXPECT_EQ(socket.receive(), "one");
    EXPECT_EQ(socket.receive(), "two");
    EXPECT_EQ(socket.receive(), "three");
}

TEST_F(WintunSessionTest, refusesPacketsWhileTheRingIsFull)
{
    const UdpSocket socket(nearAddress);
    const auto packet = udpPacket(farAddress, nearAddress, {somePort, socket.port()}, std::string(972, 'x'));
    std::vector<BYTE *> places;
    while (BYTE *place = m_wintun.allocate(m_session, static_cast<DWORD>(packet.size()))) {
        ASSERT_LE(places.size(), capacity / packet.size());
        std::memcpy(place, packet.data(), packet.size());
        places.push_back(place);
    }
    EXPECT_EQ(GetLastError(), DWORD{ERROR_BUFFER_OVERFLOW});
    EXPECT_GT(places.size(), capacity / (packet.size() + 32));

    // The oldest is what all wait for.
    m_wintun.send(m_session, places[1]);
    EXPECT_EQ(m_wintun.allocate(m_session, 1000), nullptr);
    m_wintun.send(m_session, places[0]);
    const auto deadline = GetTickCount64() + 5000;
    while (!m_wintun.allocate(m_session, 1000))
        ASSERT_LT(GetTickCount64(), deadline);
    for (std::size_t i = 2; i < places.size(); ++i)
        m_wintun.send(m_session, places[i]);
    m_wintun.endSession(m_session);
    m_session = nullptr;
    EXPECT_THAT(journal("WintunEndSession"),
                ElementsAre(HasSubstr("\"sent\":" + std::to_string(places.size()) + ",")));
    EXPECT_THAT(journal("\"unsent\":true"), SizeIs(1));
}

TEST_F(WintunSessionTest, dropsWhatIsNoIpPacket)
{
    sendWhole(std::vector<BYTE>(40, 0x11));
    m_wintun.endSession(m_session);
    m_session = nullptr;
    EXPECT_THAT(journal("\"sent\":0,\"sent-bytes\":0,\"refused-full\":0,\"dropped\":1"), SizeIs(1));
}

TEST_F(WintunSessionTest, wakesItsReaderWhenItEnds)
{
    DWORD size = 0;
    ASSERT_EQ(m_wintun.receive(m_session, &size), nullptr);
    const HANDLE event = m_wintun.readWaitEvent(m_session);
    DWORD waited = WAIT_FAILED;
    DWORD error = 0;
    std::thread reader([&] {
        waited = WaitForSingleObject(event, 10000);
        if (!m_wintun.receive(m_session, &size))
            error = GetLastError();
    });
    m_wintun.endSession(m_session);
    reader.join();
    EXPECT_EQ(waited, DWORD{WAIT_OBJECT_0});
    EXPECT_EQ(error, DWORD{ERROR_HANDLE_EOF});
    EXPECT_EQ(m_wintun.allocate(m_session, 100), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_HANDLE_EOF});
    m_session = nullptr;
}

TEST_F(WintunSessionTest, notesEveryCallAfterTheEnd)
{
    const UdpSocket socket(nearAddress);
    ASSERT_TRUE(socket.sendTo(farAddress, somePort, "hello"));
    DWORD size = 0;
    BYTE *received = receiveWaiting(size);
    ASSERT_TRUE(received);
    BYTE *place = m_wintun.allocate(m_session, 100);
    ASSERT_TRUE(place);
    const HANDLE event = m_wintun.readWaitEvent(m_session);
    m_wintun.endSession(m_session);
    ASSERT_THAT(journal("misuse"), IsEmpty());

    m_wintun.release(m_session, received);
    EXPECT_EQ(m_wintun.receive(m_session, &size), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_HANDLE_EOF});
    m_wintun.send(m_session, place);
    EXPECT_EQ(m_wintun.allocate(m_session, 100), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_HANDLE_EOF});
    EXPECT_EQ(m_wintun.readWaitEvent(m_session), event);
    m_session = nullptr;
    EXPECT_THAT(journal("after the end of the session"),
                ElementsAre(HasSubstr("WintunReleaseReceivePacket"), HasSubstr("WintunReceivePacket"),
                            HasSubstr("WintunSendPacket"), HasSubstr("WintunAllocateSendPacket"),
                            HasSubstr("WintunGetReadWaitEvent")));
}

TEST_F(WintunSessionTest, wakesItsReaderWhenTheAdapterIsRemoved)
{
    DWORD size = 0;
    ASSERT_EQ(m_wintun.receive(m_session, &size), nullptr);
    ASSERT_EQ(linuxOutput("ip link delete test"), "");
    EXPECT_EQ(WaitForSingleObject(m_wintun.readWaitEvent(m_session), 5000), DWORD{WAIT_OBJECT_0});
    EXPECT_EQ(m_wintun.receive(m_session, &size), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_HANDLE_EOF});
    EXPECT_EQ(m_wintun.allocate(m_session, 100), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_HANDLE_EOF});
    m_wintun.endSession(m_session);
    m_session = m_wintun.startSession(m_adapter, capacity);
    EXPECT_EQ(m_session, nullptr);
}

TEST_F(WintunSessionTest, endsWhenTheAdaptersCreatorClosesIt)
{
    DWORD size = 0;
    ASSERT_EQ(m_wintun.receive(m_session, &size), nullptr);
    const HANDLE event = m_wintun.readWaitEvent(m_session);
    m_wintun.closeAdapter(m_adapter);
    m_adapter = nullptr;
    EXPECT_EQ(WaitForSingleObject(event, 5000), DWORD{WAIT_OBJECT_0});
    EXPECT_EQ(m_wintun.receive(m_session, &size), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_HANDLE_EOF});
}

TEST_F(WintunSessionTest, noticesMisuse)
{
    const UdpSocket socket(nearAddress);
    ASSERT_TRUE(socket.sendTo(farAddress, somePort, "hello"));
    DWORD size = 0;
    BYTE *received = receiveWaiting(size);
    ASSERT_TRUE(received);
    m_wintun.release(m_session, received + 8);
    m_wintun.release(m_session, received);
    m_wintun.release(m_session, received);
    EXPECT_THAT(journal("misuse"),
                ElementsAre(HasSubstr("no packet to be released"), HasSubstr("no packet to be released")));
    BYTE *place = m_wintun.allocate(m_session, 29);
    ASSERT_TRUE(place);
    place[29] = 0;
    m_wintun.send(m_session, place);
    m_wintun.send(m_session, place);
    EXPECT_THAT(journal("WintunSendPacket"),
                ElementsAre(HasSubstr("written past its end"), HasSubstr("no packet that was allocated")));
}

TEST_F(WintunSessionTest, reportsAReceiveRingThatTheProgramHasDamaged)
{
    const UdpSocket socket(nearAddress);
    DWORD size = 0;
    std::vector<BYTE *> packets;
    for (const char *text : {"one", "two"}) {
        ASSERT_TRUE(socket.sendTo(farAddress, somePort, text));
        packets.push_back(receiveWaiting(size));
        ASSERT_TRUE(packets.back());
    }
    std::memset(packets[0] + size, 0xFF, 32); // into the head of the second
    m_wintun.release(m_session, packets[0]);
    EXPECT_EQ(m_wintun.receive(m_session, &size), nullptr);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_DATA});
}

TEST_F(WintunSessionTest, endsWithASendRingThatTheProgramHasDamaged)
{
    const auto packet = udpPacket(farAddress, nearAddress, {somePort, somePort}, "hello");
    const auto size = static_cast<DWORD>(packet.size());
    BYTE *first = m_wintun.allocate(m_session, size);
    ASSERT_TRUE(first);
    ASSERT_TRUE(m_wintun.allocate(m_session, size));
    std::memcpy(first, packet.data(), size);
    std::memset(first + size, 0xFF, 32);
    m_wintun.send(m_session, first);
    const auto deadline = GetTickCount64() + 5000;
    while (m_wintun.allocate(m_session, size) || GetLastError() == ERROR_BUFFER_OVERFLOW)
        ASSERT_LT(GetTickCount64(), deadline);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_HANDLE_EOF});
    EXPECT_THAT(journal("misuse"), ElementsAre(HasSubstr("written past its end"), HasSubstr("the ring is damaged")));
}

TEST_F(WintunSessionTest, failsPacketCallsAsATestHasPlanned)
{
    writeBenchFile("faults.txt", "WintunAllocateSendPacket * 111\nWintunReceivePacket 2+ 13\n");
    // Packet calls look at the plan from time to time only.
    const auto deadline = GetTickCount64() + 5000;
    while (BYTE *place = m_wintun.allocate(m_session, 100)) {
        ASSERT_LT(GetTickCount64(), deadline);
        std::memset(place, 0, 100);
        m_wintun.send(m_session, place);
    }
    EXPECT_EQ(GetLastError(), DWORD{111});
    DWORD size = 0;
    while (!m_wintun.receive(m_session, &size) && GetLastError() == ERROR_NO_MORE_ITEMS)
        ASSERT_LT(GetTickCount64(), deadline);
    EXPECT_EQ(GetLastError(), DWORD{13});

    writeBenchFile("faults.txt", "");
    while (!m_wintun.allocate(m_session, 100))
        ASSERT_LT(GetTickCount64(), deadline);
}

} // namespace ruvo::test
