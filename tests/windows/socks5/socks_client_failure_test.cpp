// Each call to Winsock failing in turn.

#include "windows/socks5/socks_client_test.h"

#include "support/qt_printers.h"
#include "support/wait_until.h"
#include "windows/support/call_journal.h"
#include "windows/support/own_resources.h"

#include <QSet>

namespace ruvo::test {
namespace {

constexpr DWORD someError = WSAENOBUFS;

class SocksClientFailure : public SocksClientTest
{
protected:
    SocksClientFailure()
    {
        m_journal.watch<IMPORT(WSASocketW)>(
            [this](auto... arguments) {
                const SOCKET socket = m_realSocket(arguments...);
                m_openSockets.insert(socket);
                return socket;
            },
            FailsWith::minusOne);
        m_journal.watch<IMPORT(setsockopt)>(FailsWith::minusOne);
        m_journal.watch<IMPORT(WSAEventSelect)>(FailsWith::minusOne);
        m_journal.watch<IMPORT(connect)>(FailsWith::minusOne);
        m_journal.watch<IMPORT(WaitForMultipleObjects)>(FailsWith::minusOne);
        m_journal.watch<IMPORT(WSAEnumNetworkEvents)>(FailsWith::minusOne);
        m_journal.watch<IMPORT(send)>(FailsWith::minusOne);
        m_journal.watch<IMPORT(WSARecv)>(FailsWith::minusOne);
        m_journal.watch<IMPORT(WSAGetOverlappedResult)>(FailsWith::zero);
        m_journal.watch<IMPORT(bind)>(FailsWith::minusOne);
    }

    /// Of this thread, and not closed again.
    QSet<SOCKET> m_openSockets;
    CallJournal m_journal;

private:
    const DWORD m_thread = GetCurrentThreadId();
    const std::function<decltype(WSASocketW)> m_realSocket = ImportRedirection<IMPORT(WSASocketW)>::current();
    // Not in the journal: a close that fails would leave the proxy with a connection without end.
    const ImportRedirection<IMPORT(closesocket)> m_close{[this](SOCKET socket) -> int {
        if (GetCurrentThreadId() == m_thread)
            m_openSockets.remove(socket);
        return m_close.real(socket);
    }};
};

TEST_F(SocksClientFailure, ofAnyCallIsReportedOnceAndLeavesNoSocket)
{
    const QSet<QString> expected = {
        "WARNING Failed to create socket: 10055",    "WARNING Failed to connect to proxy: 10055",
        "WARNING Failed to send SOCKS5 greeting",    "WARNING Failed to receive SOCKS5 response",
        "WARNING Failed to send connection request", "WARNING Failed to receive connection response",
    };
    QSet<QString> seen;
    SocksClient &client = startAnswering(accepted, connected);
    m_openSockets.clear(); // the proxy's own
    const auto failEach = [&] {
        forEachFailure(m_journal, someError, [&] {
            m_log.clear();
            const bool isConnected = client.connectTo(address, port);
            client.close();
            const std::string failed = m_journal.failed();
            const bool mayFail = failed.empty() || failed == "setsockopt";
            EXPECT_EQ(isConnected, mayFail) << failed;
            EXPECT_EQ(m_log.lines().size(), mayFail ? 0 : 1)
                << failed << ": " << m_log.lines().join('\n').toStdString();
            for (const QString &line : m_log.lines()) {
                EXPECT_TRUE(expected.contains(line)) << line.toStdString();
                seen.insert(line);
            }
            EXPECT_TRUE(m_openSockets.isEmpty()) << failed;
        });
    };
    // How many calls it takes depends on whether an answer is there at once or waited for: a turn in which all were
    // quicker than before ends before it has come to the last steps.
    EXPECT_TRUE(waitUntil([&] {
        failEach();
        return seen == expected;
    }));
    EXPECT_EQ(seen, expected);
}

TEST_F(SocksClientFailure, ofAnyCallLeavesNoHandle)
{
    SocksClient &client = startAnswering(accepted, connected);
    const auto failEach = [&] {
        forEachFailure(m_journal, someError, [&] {
            SocksClient another(L"127.0.0.1", m_proxy->port());
            another.connectTo(address, port);
        });
    };
    EXPECT_TRUE(client.connectTo(address, port));
    client.close();
    failEach(); // what is made once is there after the first
    const std::size_t before = countOwnHandles();
    failEach();
    EXPECT_TRUE(waitForHandles(before));
}

TEST_F(SocksClientFailure, toSendARequestForANameIsToldApart)
{
    SocksClient &client = startAnswering(accepted, connected);
    m_journal.fail("send", someError, 2);
    EXPECT_FALSE(client.connectTo("a.example", port));
    EXPECT_EQ(m_log.lines(), QStringList{"WARNING Failed to send domain connection request"});
}

TEST_F(SocksClientFailure, ofAnOverlappedSocketIsReportedAndLeavesNone)
{
    SocksClient client(L"127.0.0.1", 1080);
    forEachFailure(m_journal, someError, [&] {
        m_log.clear();
        const bool created = client.createOverlappedTcpSocket();
        const QString failed = QString::fromStdString(m_journal.failed());
        EXPECT_EQ(created, failed != "WSASocketW" && failed != "bind") << failed.toStdString();
        EXPECT_EQ(m_log.lines(), failed == "WSASocketW" ? QStringList{"WARNING Failed to create socket: 10055"}
                                 : failed == "bind"     ? QStringList{"WARNING Failed to bind socket: 10055"}
                                                        : QStringList());
        EXPECT_EQ(client.tcpSocket() != INVALID_SOCKET, created);
        client.close();
        EXPECT_TRUE(m_openSockets.isEmpty());
    });
}

TEST_F(SocksClientFailure, ofAControlSocketIsReportedAndClosesBoth)
{
    SocksClient client(L"127.0.0.1", 1080);
    forEachFailure(m_journal, someError, [&] {
        // Its own failure is not what is looked at here.
        if (!client.createUdpSocket(INADDR_LOOPBACK, 4000))
            return;
        m_log.clear();
        const bool created = client.createOverlappedControlSocket();
        const QStringList lines = m_log.lines();
        if (!created) {
            EXPECT_TRUE(lines == QStringList{"WARNING Failed to create TCP socket: 10055"}
                        || lines == QStringList{"WARNING Failed to bind TCP socket: 10055"})
                << lines.join('\n').toStdString();
            EXPECT_EQ(client.tcpSocket(), INVALID_SOCKET);
            EXPECT_EQ(client.udpSocket(), INVALID_SOCKET);
        } else {
            EXPECT_EQ(lines, QStringList());
        }
        client.close();
        EXPECT_TRUE(m_openSockets.isEmpty());
    });
}

TEST_F(SocksClientFailure, ofADatagramSocketIsReportedAndLeavesNone)
{
    SocksClient client(L"127.0.0.1", 1080);
    forEachFailure(m_journal, someError, [&] {
        m_log.clear();
        const bool created = client.createUdpSocket(INADDR_LOOPBACK, 4000);
        const QString failed = QString::fromStdString(m_journal.failed());
        EXPECT_EQ(created, failed != "WSASocketW" && failed != "bind") << failed.toStdString();
        EXPECT_EQ(m_log.lines(), failed == "WSASocketW" ? QStringList{"WARNING Failed to create UDP socket: 10055"}
                                 : failed == "bind"     ? QStringList{"WARNING Failed to bind UDP socket: 10055"}
                                                        : QStringList());
        EXPECT_EQ(client.isUdpReady(), created);
        EXPECT_EQ(client.udpSocket() != INVALID_SOCKET, created);
        client.close();
        EXPECT_TRUE(m_openSockets.isEmpty());
    });
}

TEST_F(SocksClientFailure, ofASecondDatagramSocketTakesTheFirstAway)
{
    SocksClient client(L"127.0.0.1", 1080);
    ASSERT_TRUE(client.createUdpSocket(INADDR_LOOPBACK, 4000));
    m_journal.fail("WSASocketW", someError);
    EXPECT_FALSE(client.createUdpSocket(INADDR_LOOPBACK, 4000));
    EXPECT_FALSE(client.isUdpReady());
    EXPECT_EQ(client.udpSocket(), INVALID_SOCKET);
}

} // namespace
} // namespace ruvo::test
