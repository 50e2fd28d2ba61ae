// Connections through a proxy that answers as a script says.

#include "windows/socks5/socks_client_test.h"

#include "support/qt_printers.h"
#include "windows/support/import_redirection.h"
#include "windows/support/signal.h"

#include <atomic>

namespace ruvo::test {

QByteArray SocksClientTest::read(SOCKET socket, qsizetype count)
{
    WSAEventSelect(socket, nullptr, 0);
    u_long blocking = 0;
    ioctlsocket(socket, static_cast<long>(FIONBIO), &blocking);
    const DWORD timeout = 10000;
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char *>(&timeout), sizeof(timeout));
    QByteArray bytes(count, '\0');
    qsizetype total = 0;
    while (total < count) {
        const int received = recv(socket, bytes.data() + total, static_cast<int>(count - total), 0);
        if (received <= 0)
            break;
        total += received;
    }
    return bytes.first(total);
}

namespace {

/// How the client is asked to connect, and what it logs then.
struct Request
{
    const char *what;
    bool (*connect)(SocksClient &client);
    QByteArray bytes;
    QString refused;
    QString noReply;
};

const Request requests[] = {
    {"an address", [](SocksClient &client) { return client.connectTo(0x5DB8D822, 443); },
     QByteArray::fromHex("050100015db8d82201bb"), "WARNING SOCKS5 connection failed with reply: %1",
     "WARNING Failed to receive connection response"},
    {"a name", [](SocksClient &client) { return client.connectTo("a.example", 443); },
     QByteArray::fromHex("0501000309") + "a.example" + QByteArray::fromHex("01bb"),
     "WARNING SOCKS5 domain connection failed with reply: %1",
     "WARNING Failed to receive domain connection response"},
};

struct Reply
{
    const char *what;
    QByteArray bytes;
};

const Reply wholeReplies[] = {
    {"IPv4", QByteArray::fromHex("05000001c0000201abcd")},
    {"IPv6", QByteArray::fromHex("0500000420010db8000000000000000000000001abcd")},
    {"a name", QByteArray::fromHex("050000030b") + "proxy.local" + QByteArray::fromHex("abcd")},
    {"a name of 255 bytes", QByteArray::fromHex("05000003ff") + QByteArray(255, 'n') + QByteArray::fromHex("abcd")},
    {"a name of one byte",
     QByteArray::fromHex("0500000301") + "n" + QByteArray::fromHex("abcd") + "!!"}, // 10 at least
    {"an unknown type", QByteArray::fromHex("05000009000000000000")},
};

} // namespace

TEST_F(SocksClientTest, sendsExactlyTheBytesOfTheHandshake)
{
    for (const Request &request : requests) {
        QByteArray first;
        QByteArray second;
        SocksClient &client = start([&](ProxyConnection &proxy) {
            first = proxy.receive(greeting.size());
            proxy.send(accepted);
            second = proxy.receive(request.bytes.size());
            proxy.send(connected);
            proxy.waitForEnd();
        });
        EXPECT_TRUE(request.connect(client)) << request.what;
        EXPECT_TRUE(client.isConnected());
        client.close();
        m_proxy.reset();
        EXPECT_EQ(first, greeting);
        EXPECT_EQ(second, request.bytes) << request.what;
        EXPECT_EQ(m_log.lines(), QStringList());
    }
}

TEST_F(SocksClientTest, sendsTheLongestNameAndNoLongerOne)
{
    QByteArray request;
    SocksClient &client = start([&](ProxyConnection &proxy) {
        proxy.receive(greeting.size());
        proxy.send(accepted);
        request = proxy.receive(7 + 255);
        proxy.send(connected);
        proxy.waitForEnd();
    });
    EXPECT_TRUE(client.connectTo(std::string(255, 'x'), port));
    client.close();
    m_proxy.reset();
    EXPECT_EQ(request, QByteArray::fromHex("05010003ff") + QByteArray(255, 'x') + QByteArray::fromHex("01bb"));
}

TEST_F(SocksClientTest, sendsNothingForANameThatCannotBe)
{
    for (const std::string &name : {std::string(), std::string(256, 'x')}) {
        QByteArray behindTheGreeting = "not asked";
        SocksClient &client = start([&](ProxyConnection &proxy) {
            proxy.receive(greeting.size());
            proxy.send(accepted);
            behindTheGreeting = proxy.receive(1);
        });
        m_log.clear();
        EXPECT_FALSE(client.connectTo(name, port));
        EXPECT_EQ(m_log.lines(), QStringList{"WARNING Invalid domain name length"});
        EXPECT_FALSE(client.isConnected());
        client.close();
        m_proxy.reset();
        EXPECT_EQ(behindTheGreeting, QByteArray());
    }
}

TEST_F(SocksClientTest, isRefusedByEveryMethodButTheOneThatItOffered)
{
    for (const char *answer : {"05ff", "0502", "0501", "0400", "0000"}) {
        SocksClient &client = startAnswering(QByteArray::fromHex(answer), connected);
        m_log.clear();
        EXPECT_FALSE(client.connectTo(address, port)) << answer;
        EXPECT_EQ(m_log.lines(), QStringList{"WARNING SOCKS5 authentication failed"}) << answer;
        EXPECT_NE(client.tcpSocket(), INVALID_SOCKET) << "the caller closes it";
    }
}

TEST_F(SocksClientTest, tellsTheCodeOfEveryRefusal)
{
    for (const Request &request : requests) {
        for (const int code : {1, 2, 3, 4, 5, 6, 7, 8, 9, 255}) {
            QByteArray reply = connected;
            reply[1] = static_cast<char>(code);
            SocksClient &client = startAnswering(accepted, reply);
            m_log.clear();
            EXPECT_FALSE(request.connect(client)) << request.what << ' ' << code;
            EXPECT_EQ(m_log.lines(), QStringList{request.refused.arg(code)});
            EXPECT_FALSE(client.isConnected());
            EXPECT_NE(client.tcpSocket(), INVALID_SOCKET) << "the caller closes it";
        }
    }
}

TEST_F(SocksClientTest, isRefusedByAReplyOfAnotherVersion)
{
    for (const Request &request : requests) {
        QByteArray reply = connected;
        reply[0] = 4;
        SocksClient &client = startAnswering(accepted, reply);
        m_log.clear();
        EXPECT_FALSE(request.connect(client));
        EXPECT_EQ(m_log.lines(), QStringList{request.refused.arg(0)});
    }
}

TEST_F(SocksClientTest, doesNotWaitForTheAddressOfARefusal)
{
    // Many servers cut it short: ten bytes come, whatever the type would need.
    SocksClient &client = startAnswering(accepted, QByteArray::fromHex("05050004000000000000"));
    EXPECT_FALSE(client.connectTo(address, port));
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING SOCKS5 connection failed with reply: 5"});
}

TEST_F(SocksClientTest, leavesTheStreamBehindAReplyAlone)
{
    const QByteArray banner = "220 ready\r\n";
    for (const Request &request : requests) {
        for (const Reply &reply : wholeReplies) {
            SocksClient &client = startAnswering(accepted, reply.bytes + banner);
            ASSERT_TRUE(request.connect(client)) << request.what << ", reply with " << reply.what;
            EXPECT_EQ(read(client.tcpSocket(), banner.size()), banner)
                << request.what << ", reply with " << reply.what;
        }
    }
    EXPECT_EQ(m_log.lines(), QStringList());
}

TEST_F(SocksClientTest, failsWhenTheAnswerToTheGreetingIsCutShort)
{
    const QByteArrayList beginnings = {QByteArray(), accepted.first(1)};
    for (const QByteArray &beginning : beginnings) {
        for (const bool reset : {false, true}) {
            SocksClient &client = start([&](ProxyConnection &proxy) {
                proxy.receive(greeting.size());
                proxy.send(beginning);
                reset ? proxy.reset() : proxy.close();
            });
            m_log.clear();
            EXPECT_FALSE(client.connectTo(address, port));
            EXPECT_EQ(m_log.lines(), QStringList{"WARNING Failed to receive SOCKS5 response"});
        }
    }
}

TEST_F(SocksClientTest, failsWhenAReplyIsCutShortAtAnyByte)
{
    for (const Request &request : requests) {
        for (const Reply &reply : wholeReplies) {
            const qsizetype needed = reply.bytes.endsWith("!!") ? 10 : reply.bytes.size();
            QList<qsizetype> lengths{needed - 1};
            for (qsizetype length = 0; length < qMin<qsizetype>(needed - 1, 24); ++length)
                lengths.append(length);
            for (const qsizetype length : lengths) {
                SocksClient &client = start([&](ProxyConnection &proxy) {
                    proxy.receive(greeting.size());
                    proxy.send(accepted);
                    proxy.receive(request.bytes.size());
                    proxy.send(reply.bytes.first(length));
                });
                m_log.clear();
                EXPECT_FALSE(request.connect(client)) << request.what << ", " << reply.what << ' ' << length;
                EXPECT_EQ(m_log.lines(), QStringList{request.noReply}) << reply.what << ' ' << length;
                EXPECT_FALSE(client.isConnected());
            }
        }
    }
}

TEST_F(SocksClientTest, takesAnswersThatAreSplitAtAnyByte)
{
    // What the client has taken out of its socket: the rest of an answer comes only after its start was read.
    std::atomic<qsizetype> taken = 0;
    const DWORD ownThread = GetCurrentThreadId();
    const ImportRedirection<IMPORT(WSARecv)> countAtOnce(
        [&](SOCKET socket, LPWSABUF room, DWORD rooms, LPDWORD count, auto... rest) -> int {
            const int result = countAtOnce.real(socket, room, rooms, count, rest...);
            if (GetCurrentThreadId() == ownThread && result == 0)
                taken += *count;
            return result;
        });
    const ImportRedirection<IMPORT(WSAGetOverlappedResult)> countAwaited(
        [&](SOCKET socket, LPWSAOVERLAPPED operation, LPDWORD count, auto... rest) -> WINBOOL {
            const bool isDone = countAwaited.real(socket, operation, count, rest...);
            if (GetCurrentThreadId() == ownThread && isDone)
                taken += *count;
            return isDone;
        });
    const auto waitUntilTaken = [&taken](qsizetype bytes) {
        for (int i = 0; i < 10000 && taken < bytes; ++i)
            Sleep(1);
    };
    for (const Request &request : requests) {
        for (const Reply &reply : wholeReplies) {
            const QByteArray all = accepted + reply.bytes;
            for (qsizetype at = 1; at < qMin<qsizetype>(all.size(), 26); ++at) {
                taken = 0;
                SocksClient &client = start([&](ProxyConnection &proxy) {
                    proxy.receive(greeting.size());
                    proxy.send(all.first(qMin(at, accepted.size())));
                    waitUntilTaken(qMin(at, accepted.size()));
                    proxy.send(all.first(accepted.size()).mid(at));
                    proxy.receive(request.bytes.size());
                    if (at > accepted.size()) {
                        proxy.send(all.first(at).mid(accepted.size()));
                        waitUntilTaken(at);
                        proxy.send(all.mid(at));
                    } else {
                        proxy.send(reply.bytes);
                    }
                    proxy.waitForEnd();
                });
                EXPECT_TRUE(request.connect(client)) << request.what << ", " << reply.what << ", split at " << at;
                client.close();
                m_proxy.reset();
            }
        }
    }
    EXPECT_EQ(m_log.lines(), QStringList());
}

TEST_F(SocksClientTest, failsWhereNobodyListens)
{
    SocksClient client(L"127.0.0.1", closedPort());
    EXPECT_FALSE(client.connectTo(address, port));
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Failed to connect to proxy: 10061"});
    EXPECT_EQ(client.tcpSocket(), INVALID_SOCKET);
    EXPECT_FALSE(client.isConnected());
}

TEST_F(SocksClientTest, takesNothingButADottedAddressForTheProxy)
{
    for (const wchar_t *host : {L"proxy.example", L"localhost", L"127.0.0.256", L"127.0.0", L"::1", L""}) {
        SocksClient client(host, 1080);
        m_log.clear();
        EXPECT_FALSE(client.connectTo(address, port));
        EXPECT_EQ(m_log.lines(),
                  QStringList{"WARNING Invalid proxy address: \"" + QString::fromWCharArray(host) + '"'});
        EXPECT_EQ(client.tcpSocket(), INVALID_SOCKET);
        const sockaddr_in where = client.proxySockaddr();
        EXPECT_EQ(where.sin_addr.s_addr, 0u);
        EXPECT_EQ(where.sin_port, 0);
    }
}

TEST_F(SocksClientTest, knowsWhereTheProxyIs)
{
    const sockaddr_in where = SocksClient(L"192.0.2.9", 1080).proxySockaddr();
    EXPECT_EQ(where.sin_family, AF_INET);
    EXPECT_EQ(where.sin_addr.s_addr, htonl(0xC0000209));
    EXPECT_EQ(where.sin_port, htons(1080));
}

TEST_F(SocksClientTest, goesThroughTheStepsOneByOne)
{
    SocksClient &client = startAnswering(accepted, connected);
    EXPECT_TRUE(client.connectToProxy());
    EXPECT_TRUE(client.authenticate());
    EXPECT_TRUE(client.connectIPv4(address, port));
    EXPECT_FALSE(client.isConnected()) << "only the whole sets it";
}

TEST_F(SocksClientTest, startsAnewWithTheSameObject)
{
    SocksClient &client = startAnswering(accepted, connected);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(client.connectTo(address, port));
        client.close();
        EXPECT_FALSE(client.isConnected());
        EXPECT_EQ(client.tcpSocket(), INVALID_SOCKET);
    }
}

TEST_F(SocksClientTest, forgetsAnEarlierConnectionThatCannotBeRepeated)
{
    SocksClient &client = startAnswering(accepted, connected);
    ASSERT_TRUE(client.connectTo(address, port));
    client.close();
    m_proxy.reset();
    EXPECT_FALSE(client.connectTo(address, port));
    EXPECT_FALSE(client.isConnected());
}

TEST_F(SocksClientTest, givesItsConnectionAway)
{
    SocksClient &client = startAnswering(accepted, connected + "hello");
    ASSERT_TRUE(client.connectTo(address, port));
    const Socket socket = client.releaseTcpSocket();
    EXPECT_FALSE(client.isConnected());
    EXPECT_EQ(client.tcpSocket(), INVALID_SOCKET);
    client.close();
    EXPECT_EQ(read(socket.get(), 5), "hello");
}

TEST_F(SocksClientTest, switchesItsSocketToBlockingAndBack)
{
    Signal goOn;
    SocksClient &client = start([&](ProxyConnection &proxy) {
        proxy.receive(greeting.size());
        proxy.send(accepted);
        proxy.receive(ipv4Request.size());
        proxy.send(connected);
        goOn.wait();
        proxy.send("x");
        proxy.waitForEnd();
    });
    client.setNonBlocking(true); // without a socket: nothing happens
    ASSERT_TRUE(client.connectTo(address, port));
    char byte = 0;
    EXPECT_EQ(recv(client.tcpSocket(), &byte, 1, 0), SOCKET_ERROR);
    EXPECT_EQ(WSAGetLastError(), WSAEWOULDBLOCK);
    client.setNonBlocking(false);
    goOn.set();
    EXPECT_EQ(recv(client.tcpSocket(), &byte, 1, 0), 1) << "it waits";
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(m_log.lines(), QStringList());
}

} // namespace ruvo::test
