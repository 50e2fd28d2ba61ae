#pragma once

#include "windows/io/winsock_test.h"
#include "windows/socks5/mute_port.h"
#include "windows/socks5/scripted_proxy.h"

#include "socks5/port_exchange.h"
#include "support/wait_until.h"
#include "windows/support/import_redirection.h"

#include <QByteArray>

#include <chrono>
#include <memory>
#include <optional>
#include <set>

namespace ruvo::test {

/// Exchanges on a port that the test itself works off, one completion at a time.
class PortExchangeTest : public WinsockTest
{
protected:
    static constexpr Endpoint web{0x5DB8D822, 443}; // 93.184.216.34

    inline static const QByteArray greeting = QByteArray::fromHex("050100");
    inline static const QByteArray accepted = QByteArray::fromHex("0500");
    inline static const QByteArray request = QByteArray::fromHex("050100015db8d82201bb");
    inline static const QByteArray connected = QByteArray::fromHex("050000017f0000011234");

    void SetUp() override { ASSERT_TRUE(m_port.open()); }
    void TearDown() override;

    /// A plan to ask the proxy at `port` for a web server.
    static PortExchangePlan plan(std::uint16_t port);
    /// One that the test's members are told the outcome of, and that notes its socket.
    PortExchangePtr make(PortExchangePlan plan);
    PortExchangePtr start(PortExchangePlan plan);
    /// Takes completions off the port until there is an outcome.
    PortExchange::Outcome &outcome();
    /// The same until it stands at `stage`.
    bool runTo(const PortExchangePtr &exchange, int stage);
    /// Takes off all that is in flight: whether that comes to an end.
    bool drain() { return m_port.drain(std::chrono::seconds(10)); }
    /// No outcome, nothing in flight, and the socket is closed.
    void expectGone();
    /// Whether the socket of the last exchange has been closed. (Its value may be another one's already.)
    bool isClosed() const { return m_closed.contains(m_socket); }

    void startProxy(ScriptedProxy::Script script) { m_proxy = std::make_unique<ScriptedProxy>(std::move(script)); }

    CompletionPort m_port;
    std::unique_ptr<ScriptedProxy> m_proxy;
    std::optional<PortExchange::Outcome> m_outcome;
    int m_outcomes = 0;
    SOCKET m_socket = INVALID_SOCKET;
    /// Lives as long as the callback.
    std::weak_ptr<int> m_callback;

private:
    /// By this thread.
    std::set<SOCKET> m_closed;
    const ImportRedirection<IMPORT(closesocket)> m_close{[this, own = GetCurrentThreadId()](SOCKET socket) {
        if (GetCurrentThreadId() == own)
            m_closed.insert(socket);
        return m_close.real(socket);
    }};
};

} // namespace ruvo::test
