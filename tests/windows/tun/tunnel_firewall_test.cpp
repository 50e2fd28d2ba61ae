// Where the filters stand among the tunnel's own steps when it comes, goes, and when its start fails behind them.

#include "windows/tun/tunnel_test.h"

#include "support/qt_printers.h"
#include "windows/support/import_redirection.h"

#include <gmock/gmock.h>

#include <any>
#include <functional>

namespace ruvo::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::SizeIs;

class TunnelFirewall : public TunnelTest
{
protected:
    /// What is called by the end of a tunnel whose start has failed behind the filters, or by its next start.
    static std::vector<std::string> leaving(bool hasSession)
    {
        std::vector<std::string> calls = {"FwpmEngineClose0"};
        if (hasSession)
            calls.emplace_back("WintunEndSession");
        calls.emplace_back("WintunCloseAdapter");
        return calls;
    }

    /// The place of the only line that contains `text`; -1 if it is not the only one.
    qsizetype placeInLog(const QString &text)
    {
        const QStringList found = m_log.linesWith(text);
        return found.size() == 1 ? m_log.lines().indexOf(found[0]) : -1;
    }
};

/// A step of the start that comes after the filters.
struct Step
{
    const char *what;
    std::function<std::any()> plan; ///< what it gives keeps the failure up
    bool hasSession;
};

template<typename ImportType, typename Replacement>
std::any redirected(Replacement replacement)
{
    return std::make_shared<ImportRedirection<ImportType>>(replacement);
}

const Step steps[] = {
    {"the session",
     [] {
         writeBenchFile("faults.txt", "WintunStartSession * 8\n");
         return std::any();
     },
     false},
    {"the completion port",
     [] { return redirected<IMPORT(CreateIoCompletionPort)>([](auto...) -> HANDLE { return nullptr; }); }, true},
    {"the listener", [] { return redirected<IMPORT(listen)>([](auto...) -> int { return SOCKET_ERROR; }); }, true},
};

TEST_F(TunnelFirewall, standsBetweenTheAdaptersSettingsAndItsListener)
{
    ASSERT_EQ(startError(), "");
    const qsizetype flushed = placeInLog("DNS resolver cache flushed");
    const qsizetype opened = placeInLog("DEBUG Firewall manager initialized");
    const qsizetype added = placeInLog("Added Windows Firewall inbound allow rule for TCP");
    const qsizetype listening = placeInLog("Listener port assigned by OS");
    EXPECT_GE(flushed, 0);
    EXPECT_GT(opened, flushed);
    EXPECT_GT(added, opened);
    EXPECT_GT(listening, added);
}

TEST_F(TunnelFirewall, isGivenUpBeforeTheSessionIfTheInterfaceHasNoIndex)
{
    {
        const ImportRedirection<IMPORT(ConvertInterfaceLuidToIndex)> none(
            [](auto...) -> NETIO_STATUS { return ERROR_FILE_NOT_FOUND; });
        ASSERT_EQ(startError(), "");
    }
    const std::vector<std::string> made = calls();
    ASSERT_THAT(made, SizeIs(::testing::Ge(3u)));
    EXPECT_THAT(std::vector(made.end() - 3, made.end()),
                ElementsAre("FwpmEngineOpen0", "FwpmEngineClose0", "WintunStartSession"));
    EXPECT_THAT(journal("\"FwpmFilterAdd0\""), SizeIs(0));
    m_log.clear();
    m_tunnel->resetConnections();
    EXPECT_TRUE(m_log.contains("m_firewall is NULL!"));
    EXPECT_FALSE(m_log.contains("[FILTER-CHECK]")) << "nothing says that filters are there";
}

TEST_F(TunnelFirewall, staysWithTheFiltersThatCouldBeAdded)
{
    std::size_t permits = 0;
    {
        const ImportRedirection<IMPORT(FwpmFilterAdd0)> noBlocks(
            [&](HANDLE engine, const FWPM_FILTER0 *filter, PSECURITY_DESCRIPTOR access, UINT64 *id) -> DWORD {
                if (filter->action.type == FWP_ACTION_BLOCK)
                    return ERROR_ACCESS_DENIED;
                ++permits;
                return noBlocks.real(engine, filter, access, id);
            });
        ASSERT_EQ(startError(), "");
    }
    EXPECT_EQ(permits, 14u);
    EXPECT_THAT(journal("\"FwpmEngineClose0\""), SizeIs(0));
    m_tunnel->resetConnections();
    EXPECT_TRUE(m_log.contains("[FILTER-CHECK] 14 filters exist, 0 are MISSING"));
    m_tunnel->stop();
    EXPECT_THAT(journal("\"FwpmFilterDeleteById0\""), SizeIs(permits));
    EXPECT_THAT(journal("\"FwpmEngineClose0\""), SizeIs(1));
}

TEST_F(TunnelFirewall, goesOnceConnectionsAreGone)
{
    ASSERT_EQ(startError(), "");
    m_log.clear();
    m_tunnel->stop();
    const qsizetype tcp = placeInLog("[TCP-NAT] Closing 0 relay sessions");
    const qsizetype udp = placeInLog("[UDP-NAT] Shutdown complete");
    const qsizetype removed = placeInLog("Removed Windows Firewall rule");
    EXPECT_GE(tcp, 0);
    EXPECT_GT(udp, tcp);
    EXPECT_GT(removed, udp);
    EXPECT_GT(placeInLog("Tunnel stopped"), removed);
}

TEST_F(TunnelFirewall, goesBeforeTheAdapterWithATunnelWhoseStartHasFailed)
{
    for (const Step &step : steps) {
        SCOPED_TRACE(step.what);
        {
            const std::any failure = step.plan();
            EXPECT_NE(startError(), "");
        }
        EXPECT_THAT(journal("\"FwpmEngineOpen0\""), SizeIs(1)) << "this step comes before the filters";
        clearBenchFolder();
        m_tunnel = std::make_unique<Tunnel>();
        EXPECT_THAT(calls(), ElementsAreArray(leaving(step.hasSession)));
        clearBenchFolder();
    }
}

TEST_F(TunnelFirewall, goesBeforeTheAdapterWithTheNextStart)
{
    for (const Step &step : steps) {
        SCOPED_TRACE(step.what);
        {
            const std::any failure = step.plan();
            EXPECT_NE(startError(), "");
        }
        clearBenchFolder();
        EXPECT_EQ(startError(), "");
        std::vector<std::string> left = leaving(step.hasSession);
        std::vector<std::string> made = calls();
        ASSERT_GT(made.size(), left.size());
        left.emplace_back("WintunOpenAdapter");
        made.resize(left.size());
        EXPECT_EQ(made, left);
        m_tunnel->stop();
    }
}

} // namespace
} // namespace ruvo::test
