// No memory at the wrong moment: the end of a packet or of a start, never of the process.

#include "windows/tun/sends_of_this_thread.h"
#include "windows/tun/tunnel_test.h"

#include "packet/packet_builder.h"
#include "packet/packet_headers.h"
#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "tun/ruvo_tun_manager.h"
#include "windows/io/winsock_test.h"
#include "windows/support/import_redirection.h"

#include <gtest/gtest.h>

#include <QJsonObject>

#include <atomic>
#include <cstddef>
#include <functional>
#include <new>

namespace ruvo::test {
namespace {

/// While it lives this thread gets no memory of the sizes that are refused.
class NoMemory
{
public:
    explicit NoMemory(std::function<bool(std::size_t size)> refuses) : m_refuses(std::move(refuses)) {}

private:
    /// The attributes of the declaration are nothing for a template argument.
    using Malloc = Import<void *(std::size_t), "malloc">;

    const std::function<bool(std::size_t size)> m_refuses;
    const DWORD m_thread = GetCurrentThreadId();
    const ImportRedirection<Malloc> m_malloc{[this](std::size_t size) -> void * {
        return GetCurrentThreadId() == m_thread && m_refuses(size) ? nullptr : m_malloc.real(size);
    }};
};

using TunnelMemory = TunnelTest;

TEST_F(TunnelMemory, forEachBufferOfAStartInTurnIsAnErrorOfThatStart)
{
    constexpr std::size_t large = 0x8000; // tables and lists; what Qt asks for it has to get
    RuvoTunManager manager;
    const QJsonObject idle = manager.status();
    for (int failing = 1;; ++failing) {
        ASSERT_LT(failing, 100);
        QJsonObject answer;
        {
            int buffers = 0;
            const NoMemory none([&](std::size_t size) { return size >= large && ++buffers == failing; });
            answer = manager.start({});
        }
        if (answer["success"].toBool()) {
            EXPECT_GE(failing, 2) << "the table of ports";
            break;
        }
        EXPECT_EQ(answer["error"], "Failed to start the tunnel: std::bad_alloc");
        EXPECT_EQ(m_log.lines().constLast(), "CRITICAL \"Failed to start the tunnel: std::bad_alloc\"");
        EXPECT_EQ(manager.status(), idle);
        EXPECT_EQ(tunLinks(), "");
    }
    EXPECT_TRUE(manager.isStarted()) << "the one that had all of them";
}

TEST_F(TunnelMemory, forAPacketIsTheEndOfThatPacket)
{
    const SendsOfThisThread sends;
    ASSERT_EQ(startError(), "");
    const PacketBytes packet = buildTcpPacket(tunnelIp, 40000, 0xCB007109, 80, 1, 1, tcpSyn, nullptr, 0);
    bool isRefused = false;
    {
        const NoMemory none([&](std::size_t size) {
            isRefused = isRefused || size == sizeof(TcpNatSession);
            return size == sizeof(TcpNatSession);
        });
        EXPECT_NO_THROW(m_tunnel->dispatchPacket(packet.data(), packet.size()));
    }
    EXPECT_TRUE(isRefused);
    EXPECT_EQ(sends.count(), 0);
    m_tunnel->dispatchPacket(packet.data(), packet.size());
    EXPECT_EQ(sends.count(), 1) << "it comes again, as packets do";
}

TEST_F(TunnelMemory, forTheHousekeepingIsNoEndOfIt)
{
    std::atomic<int> streams = 0;
    const ImportRedirection<IMPORT(WSASocketW)> none([&](int family, int type, auto... rest) -> SOCKET {
        if (type != SOCK_STREAM)
            return none.real(family, type, rest...);
        switch (++streams) {
        case 1: return none.real(family, type, rest...);            // it listens
        case 2: WSASetLastError(WSAENOBUFS); return INVALID_SOCKET; // the first client's, for the housekeeping
        case 3: throw std::bad_alloc();
        default: return none.real(family, type, rest...);
        }
    });
    ASSERT_EQ(startError(), "");
    const std::int64_t before = m_tunnel->operationsInFlight();
    EXPECT_TRUE(waitUntil([&] { return streams >= 4 && m_tunnel->operationsInFlight() > before; }))
        << "there is an accept in the end";
    EXPECT_TRUE(m_tunnel->isRunning());
}

} // namespace
} // namespace ruvo::test
