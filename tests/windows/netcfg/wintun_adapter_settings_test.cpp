#include "netcfg/wintun_adapter.h"

#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "windows/netcfg/fake_ip_helper.h"
#include "windows/netcfg/fake_wintun.h"

#include <gtest/gtest.h>

namespace ruvo {
namespace {

using test::FakeIpHelper;
using test::FakeWintun;

constexpr std::uint32_t address = 0x0A060701; // 10.6.7.1
const QString luid = QString::number(FakeWintun::luid);

class WintunAdapterSettings : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_adapter.load(FakeWintun::path));
        ASSERT_TRUE(m_adapter.createAdapter(L"tun", L"SocksTunnel"));
        m_log.clear();
    }

    test::LogCapture m_log;
    FakeWintun m_fake;
    FakeIpHelper m_ipHelper;
    WintunAdapter m_adapter;
};

TEST_F(WintunAdapterSettings, theAddressIsPreferredAtOnce)
{
    EXPECT_TRUE(m_adapter.setIpAddress(address, 30));
    EXPECT_EQ(m_ipHelper.calls, QStringList{"CreateUnicastIpAddressEntry 10.6.7.1/30 on luid " + luid + " state 4"});
    EXPECT_EQ(m_log.lines(), QStringList());
}

TEST_F(WintunAdapterSettings, anAddressThatIsThereAlreadyIsAsGood)
{
    m_ipHelper.fail("CreateUnicastIpAddressEntry", ERROR_OBJECT_ALREADY_EXISTS);
    EXPECT_TRUE(m_adapter.setIpAddress(address, 30));
    EXPECT_EQ(m_log.lines(), QStringList());
}

TEST_F(WintunAdapterSettings, anAddressThatWindowsRefusesIsReported)
{
    m_ipHelper.fail("CreateUnicastIpAddressEntry", ERROR_INVALID_PARAMETER);
    EXPECT_FALSE(m_adapter.setIpAddress(address, 33));
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Failed to set IP address: 87"});
}

TEST_F(WintunAdapterSettings, theGatewayIsADefaultRoute)
{
    EXPECT_TRUE(m_adapter.setGateway(address + 1));
    EXPECT_EQ(m_ipHelper.calls, QStringList{"CreateIpForwardEntry2 0.0.0.0/0 via 10.6.7.2 on luid " + luid
                                            + " index 0 metric 0 protocol 3"});
    EXPECT_EQ(m_log.lines(), QStringList{"DEBUG Set interface gateway to \"10.6.7.2\""});
}

TEST_F(WintunAdapterSettings, aGatewayThatIsThereAlreadyIsAsGood)
{
    m_ipHelper.fail("CreateIpForwardEntry2", ERROR_OBJECT_ALREADY_EXISTS);
    EXPECT_TRUE(m_adapter.setGateway(address + 1));
    EXPECT_EQ(m_log.lines(), QStringList{"DEBUG Set interface gateway to \"10.6.7.2\""});
}

TEST_F(WintunAdapterSettings, aGatewayThatWindowsRefusesIsReported)
{
    m_ipHelper.fail("CreateIpForwardEntry2", ERROR_ACCESS_DENIED);
    EXPECT_FALSE(m_adapter.setGateway(address + 1));
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Failed to set gateway: 5"});
}

TEST_F(WintunAdapterSettings, metricForwardingAndMtuChangeAndTheRestStays)
{
    EXPECT_TRUE(m_adapter.setMetric(0));
    EXPECT_EQ(m_ipHelper.calls,
              (QStringList{
                  "GetIpInterfaceEntry family 2 luid " + luid,
                  "SetIpInterfaceEntry family 2 luid " + luid
                      + " automatic 0 metric 0 forwarding 1 site-prefix 0 mtu 1500 disable-default-routes 0 "
                        "dad-transmits 3",
              }));
    EXPECT_EQ(m_log.lines(),
              (QStringList{
                  "WARNING [RUVO-TUN] Current metric: 25 AutoMetric: true",
                  "WARNING [RUVO-TUN] \u2713 Set interface metric to 0 with ForwardingEnabled and MTU 1500",
              }));
}

TEST_F(WintunAdapterSettings, theMetricIsTheOneThatIsWanted)
{
    m_ipHelper.automaticMetric = FALSE;
    m_ipHelper.currentMetric = 3;
    EXPECT_TRUE(m_adapter.setMetric(17));
    EXPECT_TRUE(m_ipHelper.calls.constLast().contains(" metric 17 "));
    EXPECT_EQ(m_log.lines(),
              (QStringList{
                  "WARNING [RUVO-TUN] Current metric: 3 AutoMetric: false",
                  "WARNING [RUVO-TUN] \u2713 Set interface metric to 17 with ForwardingEnabled and MTU 1500",
              }));
}

TEST_F(WintunAdapterSettings, anInterfaceThatCannotBeAskedIsNotChanged)
{
    m_ipHelper.fail("GetIpInterfaceEntry", ERROR_NOT_FOUND);
    EXPECT_FALSE(m_adapter.setMetric(0));
    EXPECT_EQ(m_ipHelper.calls.size(), 1);
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING [RUVO-TUN] Failed to get interface entry: 1168"});
}

TEST_F(WintunAdapterSettings, aMetricThatWindowsRefusesIsReported)
{
    m_ipHelper.fail("SetIpInterfaceEntry", ERROR_ACCESS_DENIED);
    EXPECT_FALSE(m_adapter.setMetric(0));
    EXPECT_EQ(m_log.lines().last(), "WARNING [RUVO-TUN] Failed to set interface metric: 5");
}

TEST_F(WintunAdapterSettings, needAnAdapter)
{
    WintunAdapter none;
    EXPECT_FALSE(none.setGateway(address + 1));
    EXPECT_FALSE(none.setMetric(0));
    EXPECT_FALSE(none.setDnsServers("10.6.7.2", {}));
    EXPECT_FALSE(none.setIpv6DnsServers({}, {}));
    EXPECT_EQ(m_log.lines(), QStringList(4, "WARNING Adapter not created"));
    EXPECT_EQ(m_ipHelper.calls, QStringList());
}

} // namespace
} // namespace ruvo
