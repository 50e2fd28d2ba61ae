#pragma once

#include "windows/netcfg/namespace_test.h"

#include "tun/tunnel.h"

#include "common/winsock_headers.h"

#include <expected>
#include <memory>
#include <string>
#include <vector>

namespace ruvo::test {

/// Tests of a whole tunnel, on a real interface "test" with the address 10.6.7.1/30.
class TunnelTest : public NamespaceTest
{
protected:
    static constexpr std::uint32_t tunnelIp = 0x0A060701;
    static constexpr std::uint8_t prefixLength = 30;
    static constexpr wchar_t adapterName[] = L"test";

    static void SetUpTestSuite();
    static void TearDownTestSuite();

    void SetUp() override;
    void TearDown() override;

    std::expected<void, std::string> start(std::uint32_t address = tunnelIp);
    /// As a test that fails says it; empty after a success.
    std::string startError(std::uint32_t address = tunnelIp);

    /// A tunnel to a proxy at this port of 127.0.0.1, and a way into it for documentation addresses.
    void startTowards(std::uint16_t proxyPort);
    /// The same with all settings.
    void startWith(const TunnelSettings &settings);

    /// An application that connects through the tunnel, says something and prints the line that it is answered. It
    /// waits for that as long as there is a tunnel.
    inline static const std::string application =
        "timeout 30 bash -c 'exec 3<>/dev/tcp/203.0.113.9/80 && echo hello >&3 && "
        "while ip link show test >/dev/null 2>&1; do "
        "read -r -t 0.2 -u 3 answer && echo \"$answer\" && exit; [ $? -gt 128 ] || exit; done'";

    /// Names of the calls to Wintun, of the changes to the system, and of the filtering engine's opening and closing,
    /// in order.
    static std::vector<std::string> calls();

    std::unique_ptr<Tunnel> m_tunnel;
};

} // namespace ruvo::test
