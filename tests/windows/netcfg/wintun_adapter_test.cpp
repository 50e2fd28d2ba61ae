#include "netcfg/wintun_adapter.h"

#include "netcfg/adapter_guid.h"
#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "windows/netcfg/fake_wintun.h"

#include <gtest/gtest.h>

#include <QUuid>

#include <memory>
#include <optional>

namespace ruvo {
namespace {

using test::FakeWintun;

constexpr wchar_t adapterName[] = L"my tun";
constexpr wchar_t tunnelType[] = L"SocksTunnel";

QString guidOf(const wchar_t *name)
{
    return QUuid(deterministicGuid(name)).toString().toUpper();
}

class WintunAdapterTest : public testing::Test
{
protected:
    void SetUp() override
    {
        m_adapter.emplace();
        ASSERT_TRUE(m_adapter->load(FakeWintun::path));
        m_fake.clear();
    }

    void create()
    {
        ASSERT_TRUE(m_adapter->createAdapter(adapterName, tunnelType));
        m_fake.clear();
        m_log.clear();
    }

    test::LogCapture m_log;
    FakeWintun m_fake;
    std::optional<WintunAdapter> m_adapter;
};

TEST_F(WintunAdapterTest, opensTheAdapterThatThereIs)
{
    m_fake.openError = NO_ERROR;
    EXPECT_TRUE(m_adapter->createAdapter(adapterName, tunnelType));
    EXPECT_EQ(m_fake.calls(),
              (QStringList{"WintunOpenAdapter my tun", "WintunGetAdapterLUID ada", "WintunGetRunningDriverVersion"}));
    EXPECT_EQ(m_adapter->luid(), FakeWintun::luid);
    EXPECT_EQ(m_log.lines(),
              (QStringList{
                  "DEBUG Using deterministic GUID for adapter \"my tun\" : \"" + guidOf(adapterName) + '"',
                  "DEBUG Opened existing Wintun adapter: \"my tun\"",
                  "DEBUG Wintun v0.14 loaded",
              }));
}

TEST_F(WintunAdapterTest, createsOneWithTheIdentityOfItsName)
{
    EXPECT_TRUE(m_adapter->createAdapter(adapterName, tunnelType));
    EXPECT_EQ(m_fake.calls(), (QStringList{
                                  "WintunOpenAdapter my tun",
                                  "WintunCreateAdapter my tun SocksTunnel " + guidOf(adapterName).toLower(),
                                  "WintunGetAdapterLUID ada",
                                  "WintunGetRunningDriverVersion",
                              }));
    EXPECT_EQ(m_adapter->luid(), FakeWintun::luid);
    EXPECT_EQ(m_log.lines().value(1), "DEBUG Created new Wintun adapter: \"my tun\"");
}

TEST_F(WintunAdapterTest, saysTheDriversVersionInItsTwoLowBytes)
{
    m_fake.driverVersion = 0xAB02FF0D;
    EXPECT_TRUE(m_adapter->createAdapter(adapterName, tunnelType));
    EXPECT_EQ(m_log.lines().constLast(), "DEBUG Wintun v2.13 loaded");
}

TEST_F(WintunAdapterTest, saysWhyItCannotBeCreated)
{
    m_fake.createError = ERROR_ACCESS_DENIED;
    EXPECT_FALSE(m_adapter->createAdapter(adapterName, tunnelType));
    EXPECT_EQ(m_log.linesWith("CRITICAL"), QStringList{"CRITICAL Failed to create adapter \"my tun\" : 5"});
    EXPECT_EQ(m_fake.count("WintunGetAdapterLUID ada"), 0);
}

TEST_F(WintunAdapterTest, givesTwoHintsIfItExistsInAWayThatCannotBeOpened)
{
    m_fake.createError = ERROR_ALREADY_EXISTS;
    EXPECT_FALSE(m_adapter->createAdapter(adapterName, tunnelType));
    EXPECT_EQ(m_log.linesWith("CRITICAL"),
              (QStringList{
                  "CRITICAL Failed to create adapter \"my tun\" : 183",
                  "CRITICAL   Hint: Delete orphaned adapter via Device Manager",
                  R"(CRITICAL   Or run: pnputil /remove-device /deviceid "ROOT\WINTUN\0000")",
              }));
}

TEST_F(WintunAdapterTest, needsItsLibrary)
{
    WintunAdapter unloaded;
    EXPECT_FALSE(unloaded.createAdapter(adapterName, tunnelType));
    EXPECT_EQ(m_log.lines(), QStringList{"CRITICAL Wintun not initialized"});

    m_log.clear();
    m_fake.missing = "WintunSendPacket";
    WintunAdapter incomplete;
    EXPECT_FALSE(incomplete.load(FakeWintun::path));
    EXPECT_FALSE(incomplete.createAdapter(adapterName, tunnelType));
    EXPECT_EQ(m_log.lines(),
              (QStringList{"CRITICAL Failed to load WintunSendPacket", "CRITICAL Wintun not initialized"}));
}

TEST_F(WintunAdapterTest, startsASessionWithTheRingThatIsWanted)
{
    create();
    EXPECT_TRUE(m_adapter->startSession(0x1000000));
    EXPECT_EQ(m_fake.calls(), QStringList{"WintunStartSession ada 16777216"});
    m_adapter->endSession();
    m_adapter->endSession();
    EXPECT_EQ(m_fake.count("WintunEndSession 5e55"), 1);
    EXPECT_EQ(m_log.lines(), QStringList());
}

TEST_F(WintunAdapterTest, hasNoSessionWithoutAnAdapter)
{
    EXPECT_FALSE(m_adapter->startSession(0x1000000));
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Adapter not created"});
    EXPECT_EQ(m_fake.calls(), QStringList());
}

TEST_F(WintunAdapterTest, saysWhyThereIsNoSession)
{
    create();
    m_fake.sessionError = ERROR_INVALID_PARAMETER;
    EXPECT_FALSE(m_adapter->startSession(1));
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Failed to start session: 87"});
    m_adapter.reset();
    EXPECT_EQ(m_fake.count("WintunEndSession 5e55"), 0);
}

TEST_F(WintunAdapterTest, takesDownWhatIsUpInOrder)
{
    HANDLE quitEvent = nullptr; // the only event that an adapter makes
    {
        const test::ImportRedirection<IMPORT(CreateEventW)> createEvent(
            [&](auto... arguments) { return quitEvent = createEvent.real(arguments...); });
        m_adapter.emplace();
    }
    ASSERT_NE(quitEvent, nullptr);
    ASSERT_TRUE(m_adapter->load(FakeWintun::path));
    create();
    ASSERT_TRUE(m_adapter->startSession(0x1000000));
    const auto noteEnd = [this](void *) { m_fake.note("the callback goes"); };
    m_adapter->setPacketCallback([held = std::shared_ptr<void>(nullptr, noteEnd)](auto...) {});
    m_adapter->startReading();
    ASSERT_TRUE(m_adapter->isReading());
    m_fake.clear();
    {
        const test::ImportRedirection<IMPORT(CloseHandle)> closeHandle([&](HANDLE handle) {
            if (handle == quitEvent)
                m_fake.note("CloseHandle of the quit event");
            return closeHandle.real(handle);
        });
        m_adapter.reset();
    }
    const QStringList inOrder = {"WintunEndSession 5e55", "WintunCloseAdapter ada", "FreeLibrary",
                                 "CloseHandle of the quit event", "the callback goes"};
    EXPECT_EQ(m_fake.calls().filter("WintunGetReadWaitEvent").size() + inOrder.size(), m_fake.calls().size());
    EXPECT_EQ(m_fake.calls().last(inOrder.size()), inOrder);
}

TEST_F(WintunAdapterTest, closesNothingThatItNeverHad)
{
    m_adapter.reset();
    EXPECT_EQ(m_fake.calls(), QStringList{"FreeLibrary"});
    m_fake.clear();
    m_adapter.emplace();
    m_adapter.reset();
    EXPECT_EQ(m_fake.calls(), QStringList());
}

TEST_F(WintunAdapterTest, leavesNoAdapterBehindAFailedCreation)
{
    m_fake.createError = ERROR_ACCESS_DENIED;
    EXPECT_FALSE(m_adapter->createAdapter(adapterName, tunnelType));
    m_adapter.reset();
    EXPECT_EQ(m_fake.count("WintunCloseAdapter ada"), 0);
}

TEST_F(WintunAdapterTest, knowsItsInterfaceByTheLuid)
{
    create();
    const test::ImportRedirection<IMPORT(ConvertInterfaceLuidToIndex)> convert(
        [](const NET_LUID *luid, NET_IFINDEX *index) -> NETIO_STATUS {
            *index = luid->Value == FakeWintun::luid ? 7 : 8;
            return NO_ERROR;
        });
    EXPECT_EQ(m_adapter->interfaceIndex(), 7u);
}

TEST_F(WintunAdapterTest, hasTheIndexZeroIfWindowsCannotTell)
{
    create();
    const test::ImportRedirection<IMPORT(ConvertInterfaceLuidToIndex)> convert(
        [](const NET_LUID *, NET_IFINDEX *index) -> NETIO_STATUS {
            *index = 7;
            return ERROR_INVALID_PARAMETER;
        });
    EXPECT_EQ(m_adapter->interfaceIndex(), 0u);
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Failed to convert LUID to interface index: 87"});
}

} // namespace
} // namespace ruvo
