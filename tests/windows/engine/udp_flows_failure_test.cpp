// Associations that are not granted, and calls that fail.

#include "windows/engine/udp_flows_fixture.h"

#include "support/qt_printers.h"
#include "windows/support/import_redirection.h"

#include <mswsock.h>

#include <QRegularExpression>

#include <atomic>

namespace ruvo::test {
namespace {

using namespace std::chrono_literals;
using Datagram = AssociationServer::Datagram;

class UdpFlowsFailureTest : public UdpFlowsTest
{
protected:
    /// A new flow is given up, nothing else is said, and the next datagram tries again.
    void expectGivenUp(const QStringList &lines = {})
    {
        send(5000, "in vain");
        expectGone();
        for (const QString &line : lines)
            expectLine(line);
        EXPECT_EQ(m_log.lines().size(), lines.size()) << m_log.lines().join('\n').toStdString();
        m_log.clear();
        send(5000, "in vain");
        expectGone();
        EXPECT_EQ(m_log.lines().size(), lines.size()) << "each new datagram tries";
    }
    void expectGivenUpAfter(const QByteArray &reply, const QStringList &lines)
    {
        useProxy({.reply = reply});
        expectGivenUp(lines);
    }
    /// A call fails at its `number`-th time in each flow, counted from 1; `lines` are what is then said. Afterwards
    /// all is well.
    template<typename Import, typename Result>
    void expectGivenUpWhenCallFails(int number, Result result, int error, const QStringList &lines)
    {
        {
            std::atomic<int> calls = 0;
            const ImportRedirection<Import> failing(
                [&, next = ImportRedirection<Import>::current()](auto... arguments) {
                    if (++calls != number)
                        return next(arguments...);
                    SetLastError(static_cast<DWORD>(error));
                    return result;
                });
            send(5000, "in vain");
            EXPECT_TRUE(waitUntil([&] { return calls >= number; })) << "the call was never made";
            expectGone();
        }
        EXPECT_EQ(withoutNumbers(m_log.lines()), lines);
        m_log.clear();
        establish(5000, "all is well");
    }
    /// Values of sockets and of the port, which differ from run to run.
    static QStringList withoutNumbers(QStringList lines)
    {
        static const QRegularExpression s_socket("(?<!TCP )(?<!UDP )socket: \\d+");
        static const QRegularExpression s_port("iocp: 0x[0-9a-f]+");
        for (QString &line : lines)
            line.replace(s_socket, "socket: %").replace(s_port, "iocp: %");
        return lines;
    }
    /// The same flow is given up over and over: of its line ten and every hundredth are written.
    void expectCapped(const QString &line)
    {
        for (int i = 0; i < 210; ++i) {
            send(5000, "in vain");
            expectGone();
        }
        EXPECT_EQ(m_log.linesWith(line).size(), 12);
        EXPECT_EQ(m_log.lines().size(), 12);
    }
};

TEST_F(UdpFlowsFailureTest, isSilentAboutAProxyThatIsNotThere)
{
    goTo(closedPort());
    expectGivenUp();
}

TEST_F(UdpFlowsFailureTest, saysThatTheProxyWantsAPassword)
{
    useProxy({.method = QByteArray::fromHex("05ff")});
    expectGivenUp({"WARNING SOCKS5 UDP auth failed"});
}

TEST_F(UdpFlowsFailureTest, saysTheSameWhenTheMethodIsCutShort)
{
    useProxy({.method = QByteArray::fromHex("05")});
    expectGivenUp({"WARNING SOCKS5 UDP auth failed"});
}

TEST_F(UdpFlowsFailureTest, tellsWhatARefusalMeans)
{
    expectGivenUpAfter(QByteArray::fromHex("05010001000000000000"),
                       {"WARNING SOCKS5 UDP associate failed - bytes: 10 ver: 5 status: 1 "
                        "(0x01=general failure, 0x05=connection refused)"});
}

TEST_F(UdpFlowsFailureTest, tellsHowShortAReplyIs)
{
    expectGivenUpAfter(QByteArray::fromHex("05000001"),
                       {"WARNING SOCKS5 UDP associate failed - bytes: 4 ver: 5 status: 0 "
                        "(0x01=general failure, 0x05=connection refused)"});
}

TEST_F(UdpFlowsFailureTest, tellsThatThereIsNoReplyAtAll)
{
    expectGivenUpAfter(QByteArray(), {"WARNING SOCKS5 UDP associate failed - bytes: 0 ver: 0 status: 0 "
                                      "(0x01=general failure, 0x05=connection refused)"});
}

TEST_F(UdpFlowsFailureTest, tellsTheVersionOfAReplyThatIsOfAnother)
{
    expectGivenUpAfter(QByteArray::fromHex("04000001000000000000"),
                       {"WARNING SOCKS5 UDP associate failed - bytes: 10 ver: 4 status: 0 "
                        "(0x01=general failure, 0x05=connection refused)"});
}

TEST_F(UdpFlowsFailureTest, saysThatItCannotUseARelayWithoutIpv4Address)
{
    expectGivenUpAfter(QByteArray::fromHex("050000030a") + "relay.test" + QByteArray::fromHex("01bb"),
                       {"WARNING Failed to setup UDP relay socket"});
}

TEST_F(UdpFlowsFailureTest, opensNothingForAProxyHostThatIsNoAddress)
{
    m_services.proxyHost = L"nonsense";
    makeFlows();
    send(5000, "in vain");
    EXPECT_EQ(m_flows->size(), 0u);
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Invalid proxy address: \"nonsense\""});
}

TEST_F(UdpFlowsFailureTest, writesTenAndEveryHundredthOfALine)
{
    useProxy({.method = QByteArray::fromHex("05ff")});
    expectCapped("WARNING SOCKS5 UDP auth failed");
}

// Each call of a flow, in the order in which they are made.

TEST_F(UdpFlowsFailureTest, saysThatThereIsNoControlSocket)
{
    expectGivenUpWhenCallFails<IMPORT(WSASocketW)>(
        1, INVALID_SOCKET, WSAEMFILE,
        {"WARNING Failed to create TCP socket: 10024", "WARNING Failed to create TCP socket for UDP associate"});
}

TEST_F(UdpFlowsFailureTest, saysThatTheControlSocketCannotBeBound)
{
    expectGivenUpWhenCallFails<IMPORT(bind)>(
        1, SOCKET_ERROR, WSAENOBUFS,
        {"WARNING Failed to bind TCP socket: 10055", "WARNING Failed to create TCP socket for UDP associate"});
}

TEST_F(UdpFlowsFailureTest, saysThatTheControlSocketCannotBePutOnThePort)
{
    expectGivenUpWhenCallFails<IMPORT(CreateIoCompletionPort)>(
        1, HANDLE{}, ERROR_NOT_ENOUGH_MEMORY,
        {"WARNING Failed to associate UDP control socket with IOCP, error: 8 socket: % iocp: %"});
}

TEST_F(UdpFlowsFailureTest, saysThatTheGreetingCannotBeSent)
{
    expectGivenUpWhenCallFails<IMPORT(WSASend)>(1, SOCKET_ERROR, WSAENOBUFS,
                                                {"WARNING WSASend UDP greeting failed: 10055"});
}

TEST_F(UdpFlowsFailureTest, isSilentWhenTheMethodCannotBeReceived)
{
    expectGivenUpWhenCallFails<IMPORT(WSARecv)>(1, SOCKET_ERROR, WSAENOBUFS, {});
}

TEST_F(UdpFlowsFailureTest, isSilentWhenTheRequestCannotBeSent)
{
    expectGivenUpWhenCallFails<IMPORT(WSASend)>(2, SOCKET_ERROR, WSAENOBUFS, {});
}

TEST_F(UdpFlowsFailureTest, isSilentWhenTheReplyCannotBeReceived)
{
    expectGivenUpWhenCallFails<IMPORT(WSARecv)>(2, SOCKET_ERROR, WSAENOBUFS, {});
}

TEST_F(UdpFlowsFailureTest, saysThatThereIsNoDataSocket)
{
    expectGivenUpWhenCallFails<IMPORT(WSASocketW)>(
        2, INVALID_SOCKET, WSAEMFILE,
        {"WARNING Failed to create UDP socket: 10024", "WARNING Failed to setup UDP relay socket"});
}

TEST_F(UdpFlowsFailureTest, saysThatTheDataSocketCannotBeBound)
{
    expectGivenUpWhenCallFails<IMPORT(bind)>(
        2, SOCKET_ERROR, WSAENOBUFS,
        {"WARNING Failed to bind UDP socket: 10055", "WARNING Failed to setup UDP relay socket"});
}

TEST_F(UdpFlowsFailureTest, saysThatTheDataSocketCannotBeConnected)
{
    expectGivenUpWhenCallFails<IMPORT(connect)>(1, SOCKET_ERROR, WSAENETUNREACH,
                                                {"WARNING Failed to setup UDP relay socket"});
}

TEST_F(UdpFlowsFailureTest, saysThatTheDataSocketWouldBlock)
{
    expectGivenUpWhenCallFails<IMPORT(ioctlsocket)>(1, SOCKET_ERROR, WSAENOBUFS,
                                                    {"WARNING Failed to setup UDP relay socket"});
}

TEST_F(UdpFlowsFailureTest, saysThatTheDataSocketCannotBePutOnThePort)
{
    expectGivenUpWhenCallFails<IMPORT(CreateIoCompletionPort)>(
        2, HANDLE{}, ERROR_NOT_ENOUGH_MEMORY,
        {"WARNING Failed to associate UDP data socket with IOCP, error: 8 socket: % iocp: %"});
}

TEST_F(UdpFlowsFailureTest, saysThatThereIsNoMemoryForTheBuffer)
{
    expectGivenUpWhenCallFails<IMPORT(VirtualAlloc)>(1, static_cast<void *>(nullptr), ERROR_NOT_ENOUGH_MEMORY,
                                                     {"WARNING Failed to setup UDP relay socket"});
}

TEST_F(UdpFlowsFailureTest, saysThatTheFirstReceiveFailed)
{
    expectGivenUpWhenCallFails<IMPORT(WSARecvFrom)>(1, SOCKET_ERROR, WSAENOBUFS,
                                                    {"WARNING WSARecvFrom failed: 10055 socket: %"});
}

TEST_F(UdpFlowsFailureTest, isSilentWhenTheSocketWentBeforeItsReceive)
{
    expectGivenUpWhenCallFails<IMPORT(WSARecvFrom)>(1, SOCKET_ERROR, WSAENOTSOCK, {});
}

TEST_F(UdpFlowsFailureTest, isSilentWhenItsReceiveIsInterrupted)
{
    expectGivenUpWhenCallFails<IMPORT(WSARecvFrom)>(1, SOCKET_ERROR, WSAEINTR, {});
}

TEST_F(UdpFlowsFailureTest, isSilentWhenTheControlConnectionCannotBeWatched)
{
    expectGivenUpWhenCallFails<IMPORT(WSARecv)>(3, SOCKET_ERROR, WSAENOBUFS, {});
}

TEST_F(UdpFlowsFailureTest, saysThatALaterReceiveFailed)
{
    const Datagram datagram = establish(5000);
    {
        const ImportRedirection<IMPORT(WSARecvFrom)> failing([](auto...) {
            WSASetLastError(WSAENOBUFS);
            return SOCKET_ERROR;
        });
        m_proxy->answer(datagram, header + "the last one");
        expectGone();
    }
    ASSERT_TRUE(takePacket());
    EXPECT_EQ(withoutNumbers(m_log.lines()), QStringList{"WARNING WSARecvFrom failed: 10055 socket: %"});
    establish(5000, "all is well");
}

TEST_F(UdpFlowsFailureTest, losesADatagramThatCannotBeSentAndNoMore)
{
    establish(5000);
    {
        const ImportRedirection<IMPORT(sendto)> failing([](auto...) {
            WSASetLastError(WSAEWOULDBLOCK);
            return SOCKET_ERROR;
        });
        send(5000, "lost");
    }
    establish(5000, "the association still stands");
    EXPECT_EQ(m_proxy->connections(), 1);
    EXPECT_TRUE(m_log.lines().isEmpty());
}

// Else one datagram that the relay's machine refuses would end the answers of the whole flow.
TEST_F(UdpFlowsFailureTest, isToldOfNoRefusals)
{
    std::atomic<int> switchedOff = 0;
    const ImportRedirection<IMPORT(WSAIoctl)> watched(
        [&, next = ImportRedirection<IMPORT(WSAIoctl)>::current()](SOCKET socket, DWORD code, void *in, DWORD inSize,
                                                                   auto... rest) {
            if (code == SIO_UDP_CONNRESET && inSize == sizeof(BOOL) && *static_cast<const BOOL *>(in) == FALSE)
                ++switchedOff;
            return next(socket, code, in, inSize, rest...);
        });
    establish(5000);
    EXPECT_EQ(switchedOff, 1);
}

// Windows keeps the refusal to itself, as it was asked to; Wine tells of it all the same, and so a receive fails.
TEST_F(UdpFlowsFailureTest, endsAFlowWhoseReceiveFailsLater)
{
    const sockaddr_in nobody = [] {
        const Socket relay(WSASocketW(AF_INET, SOCK_DGRAM, IPPROTO_UDP, nullptr, 0, WSA_FLAG_OVERLAPPED));
        const sockaddr_in any = loopbackAddress(0);
        EXPECT_EQ(bind(relay.get(), reinterpret_cast<const sockaddr *>(&any), sizeof(any)), 0);
        return boundTo(relay.get());
    }();
    useProxy({.reply = QByteArray::fromHex("050000017f000001")
                       + QByteArray(reinterpret_cast<const char *>(&nobody.sin_port), 2)});
    send(5000, "refused");
    expectGone();
    send(5000, "refused again");
    expectGone();
    EXPECT_EQ(m_proxy->connections(), 2);
    EXPECT_TRUE(m_log.lines().isEmpty());
}

// Receives that are not posted.

TEST_F(UdpFlowsFailureTest, saysThatThereIsNoFlowToReceiveFor)
{
    for (int i = 0; i < 210; ++i)
        m_flows->postUdpRecv(nullptr);
    EXPECT_EQ(m_log.linesWith("WARNING [postUdpRecv] EARLY EXIT: flow is null").size(), 12);
}

TEST_F(UdpFlowsFailureTest, saysThatAFlowHasNoSocketToReceiveFrom)
{
    useProxy({.isMute = true});
    send(5000, "in vain");
    const UdpFlowPtr flow = onlyFlow();
    for (int i = 0; i < 210; ++i)
        m_flows->postUdpRecv(flow);
    EXPECT_EQ(m_log.linesWith("WARNING [postUdpRecv] EARLY EXIT: flow->socks is null, port: 5000").size(), 12);
    m_log.clear();
    m_flows->cleanupFlow(flow);
    m_flows->postUdpRecv(flow);
    EXPECT_TRUE(m_log.lines().isEmpty()) << "one that is closed receives nothing, which is as it should be";
}

TEST_F(UdpFlowsFailureTest, saysSixTimesThatADnsFlowReceivesAlready)
{
    establish(5000);
    const UdpFlowPtr other = onlyFlow();
    send(5000, "query", {tunnel + 1, 53});
    m_dns->receive();
    const UdpFlowPtr flow = m_flows->flows().back();
    ASSERT_EQ(flow->id().key.destinationPort, 53);
    for (int i = 0; i < 10; ++i) {
        m_flows->postUdpRecv(flow);
        m_flows->postUdpRecv(other);
    }
    const QString line = "WARNING [postUdpRecv] EARLY EXIT: recvPending already true, socket: %";
    EXPECT_EQ(withoutNumbers(m_log.lines()), QStringList(6, line));
    EXPECT_TRUE(waitUntil([this] { return m_port.inFlight() == 4; }));
}

} // namespace
} // namespace ruvo::test
