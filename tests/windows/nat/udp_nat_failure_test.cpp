// Associations that cannot be opened, and calls of open ones that fail.

#include "io/socket_options.h"
#include "windows/io/socket_type.h"
#include "windows/nat/udp_nat_fixture.h"

#include "windows/support/import_redirection.h"

#include <mswsock.h>

#include <tuple>

namespace ruvo::test {
namespace {

const QString givenUp = "WARNING [UDP-NAT] Failed to create SOCKS5 UDP session for 93.184.216.34:443";

class UdpNatFailureTest : public UdpNatRelayTest
{
protected:
    /// The flow is given up: its datagrams go elsewhere, in order, and `line` (if any) says why.
    void expectGivenUp(const QString &line = {})
    {
        ASSERT_TRUE(forward(5000, "first"));
        expectLine(givenUp);
        EXPECT_TRUE(waitUntil([this] { return !refused().empty(); }));
        EXPECT_EQ(refused().at(0).payload, "first");
        EXPECT_EQ(refused().at(0).flow, (FlowKey{{client, 5000}, {server, 443}}));
        QStringList expected{givenUp};
        if (!line.isEmpty())
            expected.prepend(line);
        EXPECT_EQ(m_log.linesWith("WARNING"), expected);
        EXPECT_EQ(m_relay->sessions(), 0u);
        EXPECT_EQ(m_port.inFlight(), 0);
        ASSERT_TRUE(forward(5000, "again"));
        EXPECT_TRUE(waitUntil([this] { return m_log.linesWith(givenUp).size() == 2; })) << "each new datagram tries";
    }
    void expectGivenUpAfter(const QByteArray &reply, const QString &line)
    {
        useProxy({.reply = reply});
        startRelay();
        expectGivenUp(line);
    }
    /// A call that fails on the openers' and workers' threads, while the test's own reach Winsock.
    template<typename Import, typename Result>
    static auto failing(Result result, int error)
    {
        return std::make_unique<ImportRedirection<Import>>([result, error,
                                                            next = ImportRedirection<Import>::current(),
                                                            own = GetCurrentThreadId()](auto... arguments) {
            if (GetCurrentThreadId() == own)
                return next(arguments...);
            SetLastError(static_cast<DWORD>(error));
            return result;
        });
    }
};

/// Sends of datagrams, which have a header and a payload and wait for nothing, fail.
class FailingSends
{
public:
    explicit FailingSends(int error) : m_error(error) {}

private:
    const int m_error;
    const ImportRedirection<IMPORT(WSASend)> m_none{[this, next = ImportRedirection<IMPORT(WSASend)>::current()](
                                                        SOCKET socket, LPWSABUF parts, DWORD count, LPDWORD sent,
                                                        DWORD flags, LPWSAOVERLAPPED overlapped, auto routine) {
        if (overlapped || count != 2)
            return next(socket, parts, count, sent, flags, overlapped, routine);
        WSASetLastError(m_error);
        return SOCKET_ERROR;
    }};
};

TEST_F(UdpNatFailureTest, saysThatThereIsNoProxy)
{
    const std::uint16_t nobody = closedPort();
    ASSERT_TRUE(m_relay->initialize(client, "127.0.0.1", nobody, nobody, m_port, {}));
    expectGivenUp("WARNING [UDP-NAT] Failed to connect to SOCKS5 proxy: 10061");
}

TEST_F(UdpNatFailureTest, saysThatTheProxyWantsAPassword)
{
    useProxy({.method = QByteArray::fromHex("05ff"), .reply = std::nullopt});
    startRelay();
    expectGivenUp("WARNING [UDP-NAT] SOCKS5 auth failed: 5 255");
}

TEST_F(UdpNatFailureTest, isSilentAboutAnEndInTheMiddleOfTheMethod)
{
    m_proxy = std::make_unique<AssociationProxy>();
    const ParallelProxy half([](ProxyConnection &connection, int) {
        connection.receive(3);
        connection.send(QByteArray::fromHex("05"));
    });
    ASSERT_TRUE(m_relay->initialize(client, "127.0.0.1", half.port(), half.port(), m_port, {}));
    expectGivenUp();
    SetEvent(m_stopEvent.get());
    m_relay->shutdown();
}

TEST_F(UdpNatFailureTest, saysHowShortAReplyIs)
{
    expectGivenUpAfter(QByteArray::fromHex("05000001"),
                       "WARNING [UDP-NAT] Invalid UDP ASSOCIATE response, got 4 bytes");
}

TEST_F(UdpNatFailureTest, saysThatTheProxyRefuses)
{
    expectGivenUpAfter(QByteArray::fromHex("05070001000000000000"), "WARNING [UDP-NAT] UDP ASSOCIATE failed: 7");
}

TEST_F(UdpNatFailureTest, saysThatTheRelayHasNoIpv4Address)
{
    expectGivenUpAfter(QByteArray::fromHex("05000003046e616d6501bb"),
                       "WARNING [UDP-NAT] Unexpected ATYP in response: 3");
}

TEST_F(UdpNatFailureTest, isSilentAboutAProxyHostThatIsNoAddress)
{
    startRelay("nonsense");
    expectGivenUp();
}

TEST_F(UdpNatFailureTest, isSilentAboutAMissingControlSocket)
{
    startRelay();
    const auto none = failing<IMPORT(WSASocketW)>(INVALID_SOCKET, WSAEMFILE);
    expectGivenUp();
}

TEST_F(UdpNatFailureTest, saysThatItCannotBind)
{
    startRelay();
    const auto none = failing<IMPORT(bind)>(SOCKET_ERROR, WSAENOBUFS);
    expectGivenUp("WARNING [UDP-NAT] Failed to bind UDP socket: 10055");
}

TEST_F(UdpNatFailureTest, saysThatItsSocketCannotBePutOnThePort)
{
    startRelay();
    const auto none = failing<IMPORT(CreateIoCompletionPort)>(HANDLE{}, ERROR_NOT_ENOUGH_MEMORY);
    expectGivenUp("WARNING [UDP-NAT] Failed to associate socket with IOCP: 8");
}

TEST_F(UdpNatFailureTest, handsAllThatWaitedOverInOrder)
{
    const KernelHandle released(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const ParallelProxy slow([&](ProxyConnection &connection, int) {
        connection.receive(3);
        WaitForSingleObject(released.get(), 20000); // until all of them wait
    });
    ASSERT_TRUE(m_relay->initialize(client, "127.0.0.1", slow.port(), slow.port(), m_port, {}));
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(forward(5000, QByteArray::number(i)));
    SetEvent(released.get());
    EXPECT_TRUE(waitUntil([this] { return refused().size() == 5; }));
    for (std::size_t i = 0; i < refused().size(); ++i)
        EXPECT_EQ(refused()[i].payload, QByteArray::number(static_cast<int>(i)));
    SetEvent(m_stopEvent.get());
    m_relay->shutdown();
}

// From the stop on every opening fails at once: the fallback would get all that waits, in the middle of its own end.
TEST_F(UdpNatFailureTest, handsNothingOverOnceItStops)
{
    constexpr int openers = 16;
    std::atomic<int> begun = 0;
    std::atomic<int> ended = 0;
    const ParallelProxy mute([&](ProxyConnection &connection, int) {
        connection.receive(3);
        ++begun;
        connection.waitForEnd();
        ++ended;
    });
    ASSERT_TRUE(m_relay->initialize(client, "127.0.0.1", mute.port(), mute.port(), m_port, {}));
    for (std::uint16_t port = 1; port <= 100; ++port)
        ASSERT_TRUE(forward(port, "waits"));
    ASSERT_TRUE(waitUntil([&] { return begun == openers; }));
    std::atomic<int> opened = 0;
    const ImportRedirection<IMPORT(WSASocketW)> watched(
        [&, next = ImportRedirection<IMPORT(WSASocketW)>::current()](auto... arguments) {
            ++opened;
            return next(arguments...);
        });
    SetEvent(m_stopEvent.get());
    EXPECT_TRUE(waitUntil([&] { return ended == openers; })) << "each has been given up by then";
    m_relay->shutdown();
    EXPECT_EQ(opened, 0);
    EXPECT_TRUE(refused().empty());
    EXPECT_TRUE(m_log.linesWith("WARNING").isEmpty()) << m_log.lines().join('\n').toStdString();
}

TEST_F(UdpNatFailureTest, saysThatAReceiveFailedAndStillSends)
{
    startRelay();
    {
        const auto none = failing<IMPORT(WSARecvFrom)>(SOCKET_ERROR, WSAENOBUFS);
        establish(5000);
        expectLine("WARNING [UDP-NAT] WSARecvFrom failed: 10055");
    }
    const auto datagram = establish(5000, "still sent");
    EXPECT_EQ(m_proxy->connections(), 1);
    m_proxy->answer(datagram, header + "nobody hears it");
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 1; })) << "the control connection is watched";
    EXPECT_EQ(packetCount(), 0u);
}

TEST_F(UdpNatFailureTest, hearsNothingMoreAfterAnEmptyDatagramAndStillSends)
{
    startRelay();
    const auto datagram = establish(5000);
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 2; }));
    m_proxy->answer(datagram, "");
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 1; })) << "the control connection is watched";
    m_proxy->answer(datagram, header + "nobody hears it");
    establish(5000, "still sent");
    EXPECT_EQ(m_proxy->connections(), 1);
    EXPECT_EQ(packetCount(), 0u);
    EXPECT_TRUE(m_log.linesWith("WARNING").isEmpty());
}

// Else one datagram that the proxy's machine refuses would end the answers of the whole association.
TEST_F(UdpNatFailureTest, isToldOfNoRefusals)
{
    std::atomic<int> switchedOff = 0;
    const ImportRedirection<IMPORT(WSAIoctl)> watched(
        [&, next = ImportRedirection<IMPORT(WSAIoctl)>::current()](SOCKET socket, DWORD code, void *in, DWORD inSize,
                                                                   auto... rest) {
            if ((code == SIO_UDP_CONNRESET || code == udpNetReset) && inSize == sizeof(BOOL)
                && *static_cast<const BOOL *>(in) == FALSE)
                ++switchedOff;
            return next(socket, code, in, inSize, rest...);
        });
    startRelay();
    establish(5000);
    EXPECT_EQ(switchedOff, 2);
}

TEST_F(UdpNatFailureTest, opensAnewWhenTheControlConnectionCannotBeWatched)
{
    startRelay();
    {
        // Only that receive; what waits for the proxy's answers has an event.
        const ImportRedirection<IMPORT(WSARecv)> none(
            [next = ImportRedirection<IMPORT(WSARecv)>::current()](auto... arguments) {
                if (std::get<LPWSAOVERLAPPED>(std::tuple(arguments...))->hEvent)
                    return next(arguments...);
                WSASetLastError(WSAENOBUFS);
                return SOCKET_ERROR;
            });
        establish(5000);
        // Its failure shows nowhere but in what the next datagram does.
        EXPECT_TRUE(waitUntil([this] {
            establish(5000, "again");
            return m_proxy->connections() == 2;
        }));
    }
    EXPECT_EQ(m_relay->sessions(), 1u);
}

TEST_F(UdpNatFailureTest, saysThatItCannotConnectItsSocket)
{
    startRelay();
    const ImportRedirection<IMPORT(connect)> none([&](SOCKET socket, const sockaddr *peer, int size) {
        if (socketType(socket) != SOCK_DGRAM)
            return none.real(socket, peer, size);
        WSASetLastError(WSAENETUNREACH);
        return SOCKET_ERROR;
    });
    expectGivenUp("WARNING [UDP-NAT] Failed to connect UDP socket: 10051");
}

TEST_F(UdpNatFailureTest, saysThatItsSocketWouldBlock)
{
    startRelay();
    const ImportRedirection<IMPORT(ioctlsocket)> none([&](SOCKET socket, long command, u_long *value) {
        if (socketType(socket) != SOCK_DGRAM)
            return none.real(socket, command, value);
        WSASetLastError(WSAENOBUFS);
        return SOCKET_ERROR;
    });
    expectGivenUp("WARNING [UDP-NAT] Failed to connect UDP socket: 10055");
}

TEST_F(UdpNatFailureTest, refusesADatagramThatCannotBeSent)
{
    startRelay();
    establish(5000);
    {
        const FailingSends none(WSAENOBUFS);
        EXPECT_FALSE(forward(5000, "x"));
        EXPECT_TRUE(m_log.contains("WARNING [UDP-NAT] Failed to send to relay: 10055"));
    }
    establish(5000, "the association still stands");
    EXPECT_EQ(m_proxy->connections(), 1);
}

// The relay is alive and well, and another association would do no better.
TEST_F(UdpNatFailureTest, losesADatagramThatTheSocketHasNoRoomForOrThatHearsOfARefusal)
{
    startRelay();
    establish(5000);
    for (const int error : {WSAEWOULDBLOCK, WSAECONNRESET, WSAECONNREFUSED}) {
        const FailingSends none(error);
        EXPECT_TRUE(forward(5000, "lost"));
    }
    establish(5000, "the association still stands");
    EXPECT_EQ(m_proxy->connections(), 1);
    EXPECT_TRUE(m_log.linesWith("WARNING").isEmpty()) << m_log.lines().join('\n').toStdString();
    EXPECT_TRUE(refused().empty());
}

} // namespace
} // namespace ruvo::test
