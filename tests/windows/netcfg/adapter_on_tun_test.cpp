// The adapter over a real TUN interface, with Linux's stack at the other end.

#include "netcfg/wintun_adapter.h"

#include "netcfg/adapter_guid.h"
#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/netcfg/namespace_test.h"
#include "wintun/udp_packet.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

namespace ruvo {
namespace {

using namespace std::chrono_literals;
using test::journal;
using test::linuxOutput;
using test::UdpSocket;
using test::waitUntil;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::uint32_t nearAddress = 0x0A060701; // 10.6.7.1, Linux's end
constexpr std::uint32_t farAddress = 0x0A060702;  // 10.6.7.2, whoever reads from the adapter
constexpr wchar_t adapterName[] = L"test";
constexpr std::uint32_t capacity = 0x400000;

class AdapterOnTun : public test::NamespaceTest
{
protected:
    void create(const wchar_t *name = adapterName)
    {
        m_adapter.emplace();
        ASSERT_TRUE(m_adapter->load(libraryPath()));
        ASSERT_TRUE(m_adapter->createAdapter(name, L"SocksTunnel"));
    }

    /// With the address 10.6.7.1/30 and a session whose packets are collected.
    void run()
    {
        ASSERT_NO_FATAL_FAILURE(create());
        ASSERT_TRUE(m_adapter->setIpAddress(nearAddress, 30));
        ASSERT_TRUE(m_adapter->startSession(capacity));
        m_adapter->setPacketCallback([this](const std::uint8_t *data, std::uint32_t size) {
            const std::string_view payload = test::udpPayload({data, size});
            const std::lock_guard lock(m_mutex);
            if (!payload.empty())
                m_payloads.emplace(payload);
        });
        m_adapter->startReading();
        m_log.clear();
    }

    void TearDown() override
    {
        m_adapter.reset();
        NamespaceTest::TearDown();
    }

    bool hasRead(const std::string &payload)
    {
        const std::lock_guard lock(m_mutex);
        return m_payloads.contains(payload);
    }

    bool send(const std::vector<BYTE> &packet)
    {
        return m_adapter->sendPacket(packet.data(), static_cast<std::uint32_t>(packet.size()));
    }

    std::optional<WintunAdapter> m_adapter;
    std::mutex m_mutex;
    std::set<std::string> m_payloads;
};

TEST_F(AdapterOnTun, goesAwayIfItWasCreated)
{
    create();
    EXPECT_THAT(tunLinks(), HasSubstr(": test: "));
    EXPECT_EQ(std::to_string(m_adapter->interfaceIndex()) + '\n',
              linuxOutput("ip -o link show test | cut -d : -f 1"));
    m_adapter.reset();
    EXPECT_EQ(tunLinks(), "");
    EXPECT_THAT(journal("WintunDeleteDriver"), IsEmpty());
    EXPECT_THAT(journal("WintunSetLogger"), IsEmpty());
}

TEST_F(AdapterOnTun, hasTheIdentityOfItsNameEachTime)
{
    for (int i = 0; i < 2; ++i)
        create();
    m_adapter.reset();
    const auto created = journal("\"WintunCreateAdapter\"");
    wchar_t guid[64] = {};
    StringFromGUID2(deterministicGuid(adapterName), guid, 64);
    ASSERT_THAT(created, SizeIs(2));
    for (const std::string &line : created)
        EXPECT_THAT(line, HasSubstr("\"guid\":\"" + QString::fromWCharArray(guid).toStdString() + '"'));
}

TEST_F(AdapterOnTun, staysIfItWasThereBefore)
{
    makeAdapter("test");
    create();
    EXPECT_TRUE(m_log.contains("DEBUG Opened existing Wintun adapter: \"test\""));
    EXPECT_TRUE(m_adapter->startSession(capacity));
    m_adapter.reset();
    EXPECT_THAT(tunLinks(), HasSubstr(": kept: "));
    EXPECT_THAT(journal("\"WintunCreateAdapter\""), IsEmpty());
}

TEST_F(AdapterOnTun, isCreatedIfOpeningItFails)
{
    fail("WintunOpenAdapter", ERROR_GEN_FAILURE);
    create();
    EXPECT_THAT(tunLinks(), HasSubstr(": test: "));
}

TEST_F(AdapterOnTun, handsOverWhatApplicationsSend)
{
    ASSERT_NO_FATAL_FAILURE(run());
    const UdpSocket application(nearAddress);
    EXPECT_TRUE(application.sendTo(farAddress, 4000, "hello"));
    EXPECT_TRUE(waitUntil([this] { return hasRead("hello"); }));
}

TEST_F(AdapterOnTun, givesApplicationsWhatIsSentIntoIt)
{
    ASSERT_NO_FATAL_FAILURE(run());
    const UdpSocket application(nearAddress);
    EXPECT_TRUE(send(test::udpPacket(farAddress, nearAddress, {4000, application.port()}, "hello")));
    EXPECT_EQ(application.receive(), "hello");

    const auto packet = test::udpPacket(farAddress, nearAddress, {4000, application.port()}, "in place");
    std::uint8_t *place = m_adapter->allocatePacket(static_cast<std::uint32_t>(packet.size()));
    ASSERT_TRUE(place);
    std::ranges::copy(packet, place);
    m_adapter->sendAllocated(place);
    EXPECT_EQ(application.receive(), "in place");
}

TEST_F(AdapterOnTun, takesPacketsUpToTheLargestOfIpv4)
{
    ASSERT_NO_FATAL_FAILURE(run());
    constexpr std::size_t headers = 28;
    EXPECT_TRUE(send(test::udpPacket(farAddress, nearAddress, {4000, 4000}, std::string(65535 - headers, 'x'))));
    EXPECT_EQ(m_log.lines(), QStringList());
}

TEST_F(AdapterOnTun, givesAFullRingUpAfterAboutAHundredMilliseconds)
{
    ASSERT_NO_FATAL_FAILURE(run());
    const UdpSocket application(nearAddress);
    const auto packet = test::udpPacket(farAddress, nearAddress, {4000, application.port()}, "later");
    fail("WintunAllocateSendPacket", ERROR_BUFFER_OVERFLOW);
    const QString givenUp =
        QString("WARNING [WINTUN] Send buffer full after 50 retries, dropping packet size= %1").arg(packet.size());
    // The substitute looks for planned failures a few times a second only.
    ASSERT_TRUE(waitUntil([&] { return !send(packet) || application.receive(false) == ""; }));
    m_log.clear();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(send(packet));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 80ms);
    EXPECT_EQ(m_log.lines(), QStringList{givenUp});

    failNothing();
    EXPECT_TRUE(waitUntil([&] { return send(packet); }));
    EXPECT_TRUE(m_adapter->isReading());
}

TEST_F(AdapterOnTun, stopsReadingWhenItIsRemoved)
{
    ASSERT_NO_FATAL_FAILURE(run());
    EXPECT_TRUE(m_adapter->isReading());
    ASSERT_EQ(linuxOutput("ip link delete test"), "");
    EXPECT_TRUE(waitUntil([this] { return !m_adapter->isReading(); }));
    EXPECT_EQ(m_log.lines(), QStringList()) << "an ending session is no failure";
    EXPECT_FALSE(send(test::udpPacket(farAddress, nearAddress, {4000, 4000}, "nobody")));
    EXPECT_TRUE(m_log.contains("Send buffer full after 50 retries"));
    m_adapter->stopReading();
    m_adapter.reset();
}

TEST_F(AdapterOnTun, saysWhyReadingFailed)
{
    ASSERT_NO_FATAL_FAILURE(run());
    const UdpSocket application(nearAddress);
    fail("WintunReceivePacket", ERROR_INVALID_DATA);
    EXPECT_TRUE(waitUntil([&] {
        application.sendTo(farAddress, 4000, "something to read");
        return !m_adapter->isReading();
    }));
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Packet read failed: 13"});
}

TEST_F(AdapterOnTun, isStoppedInOrderUnderFullLoad)
{
    ASSERT_NO_FATAL_FAILURE(run());
    const UdpSocket application(nearAddress);
    std::atomic<bool> stop = false;
    std::thread source([&] {
        while (!stop)
            application.sendTo(farAddress, 4000, "load");
    });
    std::thread sender([&] {
        while (!stop)
            send(test::udpPacket(farAddress, nearAddress, {4000, 4000}, "load"));
    });
    EXPECT_TRUE(waitUntil([this] { return hasRead("load"); }));
    const auto start = std::chrono::steady_clock::now();
    m_adapter->stopReading();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    stop = true;
    source.join();
    sender.join();
    m_adapter->endSession();
    ASSERT_THAT(journal("\"WintunEndSession\""), SizeIs(1));
    EXPECT_THAT(journal("\"WintunEndSession\"").front(), HasSubstr("\"unreleased\":false,\"unsent\":false"));
}

TEST_F(AdapterOnTun, hasRoomForSeveralSenders)
{
    ASSERT_NO_FATAL_FAILURE(run());
    constexpr int senders = 4;
    constexpr int packetsEach = 5000;
    std::atomic<int> sent = 0;
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < senders; ++i) {
            threads.emplace_back([&] {
                const auto packet = test::udpPacket(farAddress, 0x0A0607FF, {4000, 4000}, std::string(1000, 'x'));
                for (int n = 0; n < packetsEach; ++n)
                    sent += send(packet) ? 1 : 0;
            });
        }
    }
    EXPECT_EQ(sent, senders * packetsEach);
    m_adapter->stopReading();
    m_adapter->endSession();
    EXPECT_THAT(journal("\"WintunEndSession\"").front(), HasSubstr("\"sent\":20000,"));
}

TEST_F(AdapterOnTun, setsUpTheRealInterface)
{
    create();
    EXPECT_TRUE(m_adapter->setIpAddress(nearAddress, 30));
    EXPECT_TRUE(m_adapter->setIpAddress(nearAddress, 30)) << "it exists";
    EXPECT_TRUE(m_adapter->setGateway(farAddress));
    EXPECT_TRUE(m_adapter->setGateway(farAddress)) << "it exists";
    EXPECT_TRUE(m_adapter->setMetric(0));
    EXPECT_EQ(addressesOf("test"), "10.6.7.1/30\n");
    EXPECT_THAT(routes("default dev test"), HasSubstr("via 10.6.7.2"));
    EXPECT_THAT(tunLinks(), HasSubstr(" mtu 1500 "));
    EXPECT_EQ(linuxOutput("cat /proc/sys/net/ipv4/conf/test/forwarding"), "1\n");
    EXPECT_THAT(journal("\"SetIpInterfaceEntry\"").back(), HasSubstr("\"metric\":0,\"automatic-metric\":false"));
}

TEST_F(AdapterOnTun, pointsDnsToItselfThroughEitherWay)
{
    create();
    const GUID guid = deterministicGuid(adapterName);
    EXPECT_TRUE(m_adapter->setDnsServers("10.6.7.2", {}));
    EXPECT_TRUE(m_adapter->setIpv6DnsServers({}, {}));
    EXPECT_EQ(nameServer(L"Tcpip", guid), "10.6.7.2");
    EXPECT_EQ(nameServer(L"Tcpip6", guid), "");

    fail("SetInterfaceDnsSettings", ERROR_NOT_SUPPORTED);
    EXPECT_TRUE(m_adapter->setDnsServers("10.6.7.2", "9.9.9.9"));
    EXPECT_EQ(nameServer(L"Tcpip", guid), "10.6.7.2,9.9.9.9");
    EXPECT_TRUE(m_log.contains("WARNING SetInterfaceDnsSettings failed: 50 , falling back to registry"));
}

TEST_F(AdapterOnTun, isReopenedWithAnotherAddress)
{
    makeAdapter("test");
    for (const std::uint32_t address : {0x0A060701u, 0x0A080001u}) {
        create();
        EXPECT_TRUE(m_adapter->setIpAddress(address, 30));
        EXPECT_TRUE(m_adapter->startSession(capacity));
        m_adapter->startReading();
        EXPECT_TRUE(m_adapter->isReading());
        const UdpSocket application(address);
        EXPECT_TRUE(send(test::udpPacket(address + 1, address, {4000, application.port()}, "hello")));
        EXPECT_EQ(application.receive(), "hello");
        m_adapter.reset();
    }
    EXPECT_EQ(addressesOf("kept"), "10.6.7.1/30 10.8.0.1/30\n") << "what an adapter has stays with it";
}

} // namespace
} // namespace ruvo
