// Which ways the machine has while a client's tunnel runs.

#include "windows/tun/ruvo_tun_manager_test.h"

#include "common/winsock_headers.h"
#include "support/qt_printers.h"
#include "windows/support/import_redirection.h"

#include <gmock/gmock.h>

#include <QJsonArray>

#include <algorithm>
#include <span>

namespace ruvo::test {
namespace {

using ::testing::HasSubstr;
using ::testing::IsEmpty;

TEST_F(RuvoTunManagerTest, takesItsRoutesAwayBeforeTheAdapter)
{
    ASSERT_EQ(m_manager->start({}), started());
    clearBenchFolder();
    ASSERT_EQ(m_manager->stop(), success);
    std::vector<std::string> order;
    for (const std::string &line : journal("")) {
        for (const char *call : {"DeleteIpForwardEntry2", "WintunEndSession", "WintunCloseAdapter"}) {
            if (line.contains("\"call\":\"" + std::string(call) + '"'))
                order.emplace_back(call);
        }
    }
    EXPECT_THAT(order,
                ::testing::ElementsAre("DeleteIpForwardEntry2", "DeleteIpForwardEntry2", "DeleteIpForwardEntry2",
                                       "DeleteIpForwardEntry2", "DeleteIpForwardEntry2", "DeleteIpForwardEntry2",
                                       "WintunEndSession", "WintunCloseAdapter"));
}

TEST_F(RuvoTunManagerTest, sparesThePublicResolversWhateverIsConfigured)
{
    ASSERT_EQ(m_manager->start({}), started());
    for (const char *address : {"8.8.8.8", "8.8.4.4", "1.1.1.1", "1.0.0.1"})
        EXPECT_EQ(wayTo(address), "uplink\n") << address;
    EXPECT_EQ(wayTo("9.9.9.9"), std::string(defaultLink) + '\n');
}

TEST_F(RuvoTunManagerTest, runsWithoutRoutesIfThereIsNoDefaultRoute)
{
    ASSERT_EQ(linuxOutput("ip route delete default"), "");
    fail("CreateIpForwardEntry2", ERROR_ACCESS_DENIED, "1"); // nor a default route of its own
    EXPECT_EQ(m_manager->start({}), started());
    failNothing();
    EXPECT_EQ(m_log.linesWith("WARNING Failed to"), (QStringList{
                                                        "WARNING Failed to set gateway: 5",
                                                        "WARNING Failed to get original default gateway",
                                                        "WARNING Failed to get original default gateway",
                                                        "WARNING Failed to set up full tunnel routing",
                                                    }));
    EXPECT_TRUE(m_log.contains("DEBUG Original network interface index: 0"));
    EXPECT_THAT(routes("0.0.0.0/1"), IsEmpty());
    EXPECT_EQ(m_manager->stop(), success);
    EXPECT_EQ(linuxOutput("ip route add default via 192.0.2.1 metric 25"), "");
}

TEST_F(RuvoTunManagerTest, remembersTheInterfaceOfTheOriginalDefaultRoute)
{
    ASSERT_EQ(m_manager->start({}), started());
    const QString index = QString::fromStdString(linuxOutput("ip -o link show uplink | cut -d : -f 1")).trimmed();
    EXPECT_TRUE(m_log.contains("DEBUG Original network interface index: " + index));
    EXPECT_TRUE(m_log.contains("DEBUG Original gateway: \"192.0.2.1\" (ifIndex= " + index + " )"));
}

TEST_F(RuvoTunManagerTest, sparesTheResolversThoughItsOwnDefaultRouteComesFirst)
{
    const QString index = QString::fromStdString(linuxOutput("ip -o link show uplink | cut -d : -f 1")).trimmed();
    writeBenchFile("netconfig.txt", "default-routes reversed\n");
    // The second time the adapter's route, which stays with it, is listed first before the start already.
    makeAdapter("ruvo-default-tun");
    for (int run = 0; run < 2; ++run) {
        ASSERT_EQ(m_manager->start({}), started());
        EXPECT_TRUE(m_log.contains("DEBUG Original network interface index: " + index));
        EXPECT_EQ(m_log.linesWith("skipping bypass routes"), QStringList());
        EXPECT_EQ(wayTo("8.8.8.8"), "uplink\n");
        EXPECT_EQ(wayTo("93.184.216.34"), "kept\n");
        m_log.clear();
        ASSERT_EQ(m_manager->stop(), success);
    }
}

TEST_F(RuvoTunManagerTest, knowsItsOwnNetworkBeforeWindowsListsIt)
{
    const ImportRedirection<IMPORT(GetIpForwardTable)> forwardTable(
        [&](PMIB_IPFORWARDTABLE table, PULONG size, BOOL sorted) {
            const DWORD error = forwardTable.real(table, size, sorted);
            if (error == NO_ERROR) {
                const auto isOwn = [](const MIB_IPFORWARDROW &row) { return row.dwForwardDest == htonl(0x0A060700); };
                const std::span rows(table->table, table->dwNumEntries);
                table->dwNumEntries -= static_cast<DWORD>(std::ranges::remove_if(rows, isOwn).size());
            }
            return error;
        });
    ASSERT_EQ(m_manager->start({{"bypass-ips", QJsonArray{"10.6.7.1", "10.6.7.2", "10.6.7.4"}}}), started());
    EXPECT_THAT(routes("10.6.7.1") + routes("10.6.7.2"), IsEmpty());
    EXPECT_EQ(wayTo("10.6.7.4"), "uplink\n") << "the next network";
}

TEST_F(RuvoTunManagerTest, leavesTheRouteOfAProxyElsewhere)
{
    ASSERT_EQ(linuxOutput("sysctl -qw net.ipv4.conf.uplink.tag=2"), "");
    ASSERT_EQ(m_manager->start({{"proxy-ip", "203.0.113.5"}}), started());
    EXPECT_EQ(wayTo("203.0.113.5"), "uplink\n");
    ASSERT_EQ(m_manager->stop(), success);
    EXPECT_THAT(routes("203.0.113.5"), HasSubstr("via 192.0.2.1 dev uplink"));
    EXPECT_EQ(linuxOutput("ip route delete 203.0.113.5; sysctl -qw net.ipv4.conf.uplink.tag=0"), "");
}

TEST_F(RuvoTunManagerTest, givesAProxyThatIsNoAddressNoRoute)
{
    ASSERT_EQ(m_manager->start({{"proxy-ip", "proxy.example"}}), started());
    EXPECT_THAT(journal("\"CreateIpForwardEntry\""), IsEmpty());
    EXPECT_FALSE(m_log.contains("localhost"));
    EXPECT_TRUE(m_log.contains("DEBUG Proxy: proxy.example:10808"));
}

} // namespace
} // namespace ruvo::test
