// No memory or no thread for one flow is the end of that one, and of nothing else.

#include "windows/nat/udp_nat_fixture.h"
#include "windows/support/import_redirection.h"

#include <process.h>

#include <cerrno>
#include <new>

namespace ruvo::test {
namespace {

TEST_F(UdpNatRelayTest, givesUpAFlowThatThereIsNoBufferFor)
{
    startRelay();
    {
        const ImportRedirection<IMPORT(VirtualAlloc)> none(
            [&, own = GetCurrentThreadId()](LPVOID address, SIZE_T size, DWORD type, DWORD protection) -> LPVOID {
                if (GetCurrentThreadId() == own || size != 0x10000)
                    return none.real(address, size, type, protection);
                SetLastError(ERROR_NOT_ENOUGH_MEMORY);
                return nullptr;
            });
        ASSERT_TRUE(forward(5000, "in vain"));
        EXPECT_TRUE(waitUntil([this] { return refused().size() == 1; }));
        expectLine("WARNING [UDP-NAT] Failed to create SOCKS5 UDP session for 93.184.216.34:443");
    }
    EXPECT_EQ(m_proxy->connections(), 0);
    establish(5000, "again");
}

TEST_F(UdpNatRelayTest, losesADatagramThatThereIsNoMemoryFor)
{
    startRelay();
    const std::uint8_t byte = 0;
    const std::span<const std::uint8_t> tooLarge(&byte, std::size_t{1} << 62);
    EXPECT_TRUE(m_relay->forward({{client, 5000}, {server, 443}}, {server, 443}, tooLarge));
    establish(5000, "the next one");
    EXPECT_TRUE(refused().empty());
}

TEST_F(UdpNatRelayTest, losesAnAnswerThatThereIsNoMemoryFor)
{
    std::atomic<int> answers = 0;
    ASSERT_TRUE(m_relay->initialize(client, "127.0.0.1", m_proxy->port(), m_direct->port(), m_port,
                                    [&](const std::uint8_t *, std::size_t) {
                                        if (++answers == 1)
                                            throw std::bad_alloc();
                                    }));
    const AssociationProxy::Datagram datagram = establish(5000);
    m_proxy->answer(datagram, header + "lost");
    m_proxy->answer(datagram, header + "the next one");
    EXPECT_TRUE(waitUntil([&] { return answers == 2; }));
}

/// Threads cannot be started while it lives.
class NoThreads
{
public:
    explicit NoThreads(bool throws) : m_throws(throws) {}
    int asked() const { return m_asked; }

private:
    const bool m_throws;
    std::atomic<int> m_asked = 0;
    const ImportRedirection<IMPORT(_beginthreadex)> m_none{[this](auto...) -> uintptr_t {
        ++m_asked;
        if (m_throws)
            throw std::bad_alloc();
        errno = EAGAIN;
        return 0;
    }};
};

class UdpNatOpenersTest : public UdpNatRelayTest, public ::testing::WithParamInterface<bool>
{};

// A place of a thread that was never there would be taken for ever otherwise, and with the last one nothing would be
// opened any more.
TEST_P(UdpNatOpenersTest, areTriedForAgainAfterNoneCouldBeHad)
{
    constexpr std::uint16_t moreThanOpeners = 17;
    startRelay();
    {
        const NoThreads none(GetParam());
        for (std::uint16_t port = 1; port <= moreThanOpeners; ++port)
            ASSERT_TRUE(forward(port, "waits"));
        EXPECT_EQ(none.asked(), moreThanOpeners);
    }
    ASSERT_TRUE(forward(moreThanOpeners + 1, "waits"));
    for (std::uint16_t port = 1; port <= moreThanOpeners + 1; ++port)
        EXPECT_EQ(m_proxy->receive().bytes, header + "waits") << port;
}

// It may be the only one.
TEST_P(UdpNatOpenersTest, areTriedForAgainForTheSameFlow)
{
    startRelay();
    {
        const NoThreads none(GetParam());
        ASSERT_TRUE(forward(5000, "waits"));
        EXPECT_EQ(none.asked(), 1);
    }
    ASSERT_TRUE(forward(5000, "opens"));
    EXPECT_EQ(m_proxy->receive().bytes, header + "waits");
    EXPECT_EQ(m_proxy->receive().bytes, header + "opens");
}

INSTANTIATE_TEST_SUITE_P(, UdpNatOpenersTest, ::testing::Bool(),
                         [](const auto &tested) { return tested.param ? "ThereWasNoMemory" : "ThereWasNoThread"; });

} // namespace
} // namespace ruvo::test
