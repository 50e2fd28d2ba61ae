#include "windows/socks5/scripted_proxy.h"

#include "windows/io/winsock_test.h"

namespace ruvo::test {

ProxyConnection::ProxyConnection(Socket socket) : m_socket(std::move(socket))
{
    const DWORD timeout = 20000;
    setsockopt(m_socket.get(), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char *>(&timeout), sizeof(timeout));
    const int on = 1;
    setsockopt(m_socket.get(), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char *>(&on), sizeof(on));
}

QByteArray ProxyConnection::receive(qsizetype count)
{
    QByteArray bytes;
    while (bytes.size() < count) {
        char block[1024];
        const int received =
            recv(m_socket.get(), block, static_cast<int>(qMin<qsizetype>(count - bytes.size(), 1024)), 0);
        if (received <= 0)
            break;
        bytes.append(block, received);
    }
    return bytes;
}

void ProxyConnection::send(const QByteArray &bytes)
{
    ::send(m_socket.get(), bytes.constData(), static_cast<int>(bytes.size()), 0);
}

void ProxyConnection::waitForEnd()
{
    while (!receive(1).isEmpty()) {}
}

void ProxyConnection::shutDown()
{
    shutdown(m_socket.get(), SD_SEND);
}

void ProxyConnection::reset()
{
    const linger now{.l_onoff = 1, .l_linger = 0};
    setsockopt(m_socket.get(), SOL_SOCKET, SO_LINGER, reinterpret_cast<const char *>(&now), sizeof(now));
    m_socket.reset();
}

ScriptedProxy::ScriptedProxy(Script script)
    : m_script(std::move(script))
    , m_listener(listeningSocket())
    , m_port(portOf(m_listener.get()))
    , m_thread(&ScriptedProxy::serve, this)
{}

ScriptedProxy::~ScriptedProxy()
{
    m_stop = true;
    // A connection of our own ends the accept.
    const Socket last(WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, 0));
    const sockaddr_in address = loopbackAddress(m_port);
    connect(last.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address));
    m_thread.join();
}

void ScriptedProxy::serve()
{
    for (;;) {
        ProxyConnection client(Socket(accept(m_listener.get(), nullptr, nullptr)));
        if (m_stop)
            return;
        m_script(client);
    }
}

} // namespace ruvo::test
