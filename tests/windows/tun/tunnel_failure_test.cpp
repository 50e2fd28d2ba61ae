// Each step of the tunnel's start failing: what it says, what it leaves, and that the next start works.

#include "windows/tun/tunnel_test.h"

#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/support/import_redirection.h"
#include "windows/support/own_resources.h"

#include <gmock/gmock.h>

#include <fwpmu.h>
#include <objbase.h>
#include <process.h>

#include <any>
#include <atomic>
#include <bit>
#include <chrono>
#include <cstring>
#include <functional>
#include <system_error>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class TunnelFailure : public TunnelTest
{};

/// A step that ends the start.
struct Fatal
{
    const char *what;
    std::function<std::any()> plan; ///< what it gives keeps the failure up
    QStringList lines;
    std::string error;
};

std::any planned(const std::string &line)
{
    writeBenchFile("faults.txt", line + "\n");
    return {};
}

template<typename ImportType, typename Replacement>
std::any redirected(Replacement replacement)
{
    return std::make_shared<ImportRedirection<ImportType>>(replacement);
}

/// What stands for a function of wintun.dll that gives nothing but the error `Error`.
template<DWORD Error>
void *WINAPI givesNothing()
{
    SetLastError(Error);
    return nullptr;
}

/// A function that is looked up at run time fails.
template<DWORD Error>
std::any lookedUp(const char *function)
{
    const auto lookUp = ImportRedirection<IMPORT(GetProcAddress)>::current();
    return redirected<IMPORT(GetProcAddress)>([lookUp, function](HMODULE module, LPCSTR name) -> FARPROC {
        // Names of low numbers are ordinals.
        const bool isName = reinterpret_cast<std::uintptr_t>(name) > 0xFFFF;
        return isName && std::strcmp(name, function) == 0 ? std::bit_cast<FARPROC>(&givesNothing<Error>)
                                                          : lookUp(module, name);
    });
}

const Fatal fatalSteps[] = {
    {"the adapter",
     [] { return lookedUp<ERROR_ACCESS_DENIED>("WintunCreateAdapter"); },
     {"CRITICAL Failed to create adapter \"test\" : 5", "CRITICAL Failed to create adapter"},
     "Failed to create Wintun adapter (driver issue or insufficient permissions)"},
    {"the address",
     [] {
         return redirected<IMPORT(CreateUnicastIpAddressEntry)>(
             [](auto...) -> NETIO_STATUS { return ERROR_INVALID_PARAMETER; });
     },
     {"WARNING Failed to set IP address: 87", "CRITICAL Failed to set IP address"},
     "Failed to set IP address on TUN adapter"},
    {"DNS",
     [] {
         return redirected<IMPORT(ConvertInterfaceLuidToGuid)>(
             [](auto...) -> NETIO_STATUS { return ERROR_INVALID_PARAMETER; });
     },
     {"WARNING Failed to convert LUID to GUID: 87", "CRITICAL Failed to set DNS servers for hijacking"},
     "Failed to set DNS servers (network configuration error)"},
    {"the session",
     [] { return lookedUp<ERROR_NOT_ENOUGH_MEMORY>("WintunStartSession"); },
     {"WARNING Failed to start session: 8", "CRITICAL Failed to start session"},
     "Failed to start Wintun session (driver communication error)"},
    {"the completion port",
     [] {
         return redirected<IMPORT(CreateIoCompletionPort)>([](auto...) -> HANDLE {
             SetLastError(ERROR_NOT_ENOUGH_MEMORY);
             return nullptr;
         });
     },
     {"CRITICAL Failed to create IOCP: 8"},
     "Failed to create I/O Completion Port (error 8)"},
    {"the listener's bind",
     [] {
         return redirected<IMPORT(bind)>([](auto...) -> int {
             WSASetLastError(WSAEACCES);
             return SOCKET_ERROR;
         });
     },
     {"CRITICAL [TCP-NAT] Failed to bind listener: 10013", "CRITICAL Failed to initialize TCP NAT"},
     "Failed to initialize TCP NAT listener"},
    {"the listener's socket",
     [] {
         return redirected<IMPORT(WSASocketW)>([](auto...) -> SOCKET {
             WSASetLastError(WSAENOBUFS);
             return INVALID_SOCKET;
         });
     },
     {"CRITICAL [TCP-NAT] Failed to create listener socket: 10055", "CRITICAL Failed to initialize TCP NAT"},
     "Failed to initialize TCP NAT listener"},
    {"the listener",
     [] {
         return redirected<IMPORT(listen)>([](auto...) -> int {
             WSASetLastError(WSAENOBUFS);
             return SOCKET_ERROR;
         });
     },
     {"CRITICAL [TCP-NAT] Failed to listen: 10055", "CRITICAL Failed to initialize TCP NAT"},
     "Failed to initialize TCP NAT listener"},
};

/// That the filters are there is told at critical level, in every start that comes so far.
bool isOfGoodFilters(const QString &line)
{
    return line.startsWith("CRITICAL [WFP] Created ") || line.startsWith("CRITICAL [FILTER-CHECK] ");
}

/// The critical lines and what the failed call itself said.
bool isSerious(const QString &line)
{
    return (line.startsWith("CRITICAL") && !isOfGoodFilters(line)) || line.startsWith("WARNING Failed");
}

TEST_F(TunnelFailure, ofAStepThatItNeedsEndsTheStart)
{
    for (const Fatal &step : fatalSteps) {
        m_log.clear();
        {
            const std::any failure = step.plan();
            EXPECT_EQ(startError(), step.error) << step.what;
        }
        failNothing();
        EXPECT_FALSE(m_tunnel->isRunning()) << step.what;
        QStringList serious;
        for (const QString &line : m_log.lines()) {
            if (isSerious(line))
                serious.append(line);
        }
        EXPECT_EQ(serious, step.lines) << step.what;

        // Stopping has nothing to stop, and the same object starts once the cause has gone.
        m_log.clear();
        m_tunnel->stop();
        EXPECT_EQ(m_log.lines(), QStringList()) << step.what;
        EXPECT_EQ(startError(), "") << step.what;
        EXPECT_TRUE(m_tunnel->isRunning()) << step.what;
        m_tunnel->stop();
    }
}

TEST_F(TunnelFailure, leavesNothingWhenTheTunnelGoes)
{
    for (int round = 0; round < 2; ++round) { // what is made once is there after the first
        const OwnResources before = OwnResources::now();
        for (const Fatal &step : fatalSteps) {
            {
                const std::any failure = step.plan();
                EXPECT_EQ(startError(), step.error);
            }
            m_tunnel = std::make_unique<Tunnel>();
            EXPECT_EQ(GetModuleHandleW(L"wintun.dll"), nullptr) << step.what;
        }
        if (round == 1) { // no command of Linux before this: Wine keeps a handle of each
            EXPECT_TRUE(waitForHandles(before.handles));
            EXPECT_LE(OwnResources::now().threads, before.threads);
        }
        EXPECT_EQ(tunLinks(), "");
    }
}

TEST_F(TunnelFailure, ofTheLibraryEndsTheStart)
{
    const auto started = m_tunnel->start(adapterName, tunnelIp, prefixLength, L"C:\\nowhere\\wintun.dll");
    ASSERT_FALSE(started);
    EXPECT_EQ(started.error(), "Failed to initialize Wintun (DLL not found or incompatible version)");
    EXPECT_EQ(m_log.lines().constLast(), "CRITICAL Failed to initialize Wintun");
    EXPECT_EQ(calls(), std::vector<std::string>());

    // A library, but another one.
    const auto wrong = m_tunnel->start(adapterName, tunnelIp, prefixLength, L"C:\\windows\\system32\\dnsapi.dll");
    ASSERT_FALSE(wrong);
    EXPECT_EQ(wrong.error(), started.error());
    EXPECT_TRUE(m_log.contains("CRITICAL Failed to load WintunCreateAdapter"));
    EXPECT_EQ(startError(), "");
}

/// A step that the start does without.
struct Endured
{
    const char *what;
    std::function<std::any()> plan;
    QStringList lines;
    QStringList critical = {};
};

const Endured enduredSteps[] = {
    {"the gateway",
     [] { return planned("CreateIpForwardEntry2 1 87"); },
     {"WARNING Failed to set gateway: 87", "WARNING Warning: Failed to set gateway (continuing anyway)"}},
    {"the interface's entry",
     [] { return planned("GetIpInterfaceEntry * 1168"); },
     {"WARNING [RUVO-TUN] Failed to get interface entry: 1168",
      "WARNING Warning: Failed to set interface metric (DNS may not work!)"}},
    {"the metric",
     [] { return planned("SetIpInterfaceEntry * 87"); },
     {"WARNING [RUVO-TUN] Failed to set interface metric: 87",
      "WARNING Warning: Failed to set interface metric (DNS may not work!)"}},
    {"the newer call for DNS",
     [] { return planned("SetInterfaceDnsSettings * 50"); },
     {"WARNING SetInterfaceDnsSettings failed: 50 , falling back to registry"}},
    {"IPv6 DNS",
     [] { return redirected<IMPORT(RegSetValueExA)>([](auto...) -> LSTATUS { return ERROR_ACCESS_DENIED; }); },
     {"WARNING Failed to set IPv6 DNS servers in registry: 5",
      "WARNING Warning: Failed to clear IPv6 DNS servers (continuing anyway)"}},
    {"the resolver cache",
     [] {
         const auto load = ImportRedirection<IMPORT(LoadLibraryW)>::current();
         return redirected<IMPORT(LoadLibraryW)>(
             [load](LPCWSTR name) -> HMODULE { return std::wstring(name) == L"dnsapi.dll" ? nullptr : load(name); });
     },
     {"WARNING Failed to flush DNS resolver cache"}},
    {"the filtering engine",
     [] { return redirected<IMPORT(FwpmEngineOpen0)>([](auto...) -> DWORD { return EPT_S_NOT_REGISTERED; }); },
     {"WARNING Warning: Failed to initialize firewall manager (continuing without firewall rules)"},
     {"CRITICAL Failed to open WFP engine: 1753"}},
    {"the interface's index",
     [] {
         return redirected<IMPORT(ConvertInterfaceLuidToIndex)>(
             [](auto...) -> NETIO_STATUS { return ERROR_FILE_NOT_FOUND; });
     },
     {"WARNING Failed to convert LUID to interface index: 2",
      "WARNING Warning: Failed to get TUN interface index (continuing without firewall rules)"}},
    {"the filters that block",
     [] {
         const auto add = ImportRedirection<IMPORT(FwpmFilterAdd0)>::current();
         return redirected<IMPORT(FwpmFilterAdd0)>([add](HANDLE engine, const FWPM_FILTER0 *filter, auto... rest) {
             return filter->action.type == FWP_ACTION_BLOCK ? DWORD{ERROR_ACCESS_DENIED}
                                                            : add(engine, filter, rest...);
         });
     },
     {"WARNING Failed to add block ipv6 filter: 5", "WARNING Failed to add IPv6 block filter",
      "WARNING Failed to add block ipv4 dns filter: 5", "WARNING Failed to add block ipv6 dns filter: 5",
      "WARNING Failed to add DNS block filters",
      "WARNING Warning: Failed to apply firewall rules (DNS leaks may occur)"}},
    {"the rule of the Windows Firewall",
     [] { return redirected<IMPORT(CoInitializeEx)>([](auto...) -> HRESULT { return E_OUTOFMEMORY; }); },
     {"WARNING [WinFW] Failed to initialize COM: -2147024882",
      "WARNING Failed to add Windows Firewall inbound rule"}},
};

TEST_F(TunnelFailure, ofAStepThatItDoesWithoutOnlyWarns)
{
    // What every start says at that level.
    ASSERT_EQ(startError(), "");
    m_tunnel->stop();
    const auto withoutNumbers = [](QString line) {
        return line.section("Listening on", 0, 0)
            .section("Current metric", 0, 0)
            .section("Set interface metric", 0, 0);
    };
    QStringList usual;
    for (const QString &line : m_log.linesWith("WARNING"))
        usual.append(withoutNumbers(line));

    for (const Endured &step : enduredSteps) {
        m_log.clear();
        {
            const std::any failure = step.plan();
            EXPECT_EQ(startError(), "") << step.what;
        }
        failNothing();
        EXPECT_TRUE(m_tunnel->isRunning()) << step.what;
        QStringList unusual;
        for (const QString &line : m_log.linesWith("WARNING")) {
            if (!usual.contains(withoutNumbers(line)))
                unusual.append(line);
        }
        EXPECT_EQ(unusual, step.lines) << step.what;
        QStringList critical = m_log.linesWith("CRITICAL");
        critical.removeIf(isOfGoodFilters);
        EXPECT_EQ(critical, step.critical) << step.what;
        m_tunnel->stop();
    }
}

TEST_F(TunnelFailure, toBindAtOnceIsTriedAgain)
{
    // A new adapter's address takes a moment until it can be used.
    std::atomic<int> binds = 0;
    const ImportRedirection<IMPORT(bind)> late([&](SOCKET socket, const sockaddr *address, int size) -> int {
        if (++binds <= 4) {
            WSASetLastError(WSAEADDRNOTAVAIL);
            return SOCKET_ERROR;
        }
        return late.real(socket, address, size);
    });
    EXPECT_EQ(startError(), "");
    EXPECT_GE(binds, 5);
}

TEST_F(TunnelFailure, toBindForThreeSecondsEndsTheStart)
{
    const ImportRedirection<IMPORT(bind)> never([](auto...) -> int {
        WSASetLastError(WSAEADDRNOTAVAIL);
        return SOCKET_ERROR;
    });
    const auto begin = Clock::now();
    EXPECT_EQ(startError(), "Failed to initialize TCP NAT listener");
    EXPECT_GE(Clock::now() - begin, 2900ms);
    EXPECT_LT(Clock::now() - begin, 10s);
    EXPECT_TRUE(m_log.contains("CRITICAL [TCP-NAT] Failed to bind listener: 10049"));
}

TEST_F(TunnelFailure, toMakeAThreadIsFatalAndTakesTheOthersDown)
{
    // Each of the tunnel's own threads in turn; at last none fails.
    for (int failing = 1;; ++failing) {
        ASSERT_LT(failing, 100);
        const std::size_t before = OwnResources::now().threads;
        std::atomic<int> threads = 0;
        bool thrown = false;
        {
            const ImportRedirection<IMPORT(_beginthreadex)> noThread([&](auto... arguments) -> uintptr_t {
                if (++threads == failing) {
                    errno = EAGAIN;
                    return 0;
                }
                return noThread.real(arguments...);
            });
            try {
                EXPECT_EQ(startError(), "");
            } catch (const std::system_error &error) {
                EXPECT_EQ(error.code(), std::errc::resource_unavailable_try_again);
                thrown = true;
            }
        }
        const auto begin = Clock::now();
        m_tunnel = std::make_unique<Tunnel>();
        EXPECT_LT(Clock::now() - begin, 5s);
        EXPECT_EQ(tunLinks(), "");
        EXPECT_TRUE(waitUntil([before] { return OwnResources::now().threads <= before; }));
        if (!thrown) {
            EXPECT_GE(failing, 3) << "a worker, flow control, the reader";
            break;
        }
    }
    EXPECT_EQ(startError(), "");
    EXPECT_TRUE(m_tunnel->isRunning());
}

} // namespace
} // namespace ruvo::test
