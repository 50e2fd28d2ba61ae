#pragma once

#include "windows/io/winsock_test.h"
#include "windows/socks5/scripted_proxy.h"

#include "socks5/socks_client.h"
#include "support/log_capture.h"

#include <QByteArray>

#include <memory>
#include <optional>
#include <string>

namespace ruvo::test {

/// A client and the proxy that it talks to.
class SocksClientTest : public WinsockTest
{
protected:
    static constexpr std::uint32_t address = 0x5DB8D822; // 93.184.216.34
    static constexpr std::uint16_t port = 443;

    inline static const QByteArray greeting = QByteArray::fromHex("050100");
    inline static const QByteArray accepted = QByteArray::fromHex("0500");
    inline static const QByteArray ipv4Request = QByteArray::fromHex("050100015db8d82201bb");
    inline static const QByteArray connected = QByteArray::fromHex("05000001000000000000");

    /// Connects the client to a proxy that follows `script`.
    SocksClient &start(ScriptedProxy::Script script, HANDLE stopEvent = nullptr)
    {
        m_client.reset();
        m_proxy = std::make_unique<ScriptedProxy>(std::move(script));
        return m_client.emplace(L"127.0.0.1", m_proxy->port(), stopEvent);
    }
    /// One that answers the greeting with `method` and the request with `reply`, and then waits for the client's end.
    SocksClient &startAnswering(const QByteArray &method, const QByteArray &reply, HANDLE stopEvent = nullptr)
    {
        return start(
            [method, reply](ProxyConnection &client) {
                if (client.receive(greeting.size()) != greeting)
                    return;
                client.send(method);
                client.receive(5); // the whole request may have any length
                client.send(reply);
                client.waitForEnd();
            },
            stopEvent);
    }

    /// The next bytes of the client's stream, waited for.
    static QByteArray read(SOCKET socket, qsizetype count);

    void TearDown() override { m_client.reset(); }

    LogCapture m_log;
    std::unique_ptr<ScriptedProxy> m_proxy;
    std::optional<SocksClient> m_client;
};

} // namespace ruvo::test
