#include "windows/engine/echo_proxy.h"

#include "windows/io/winsock_test.h"
#include "windows/nat/nat_test.h"

namespace ruvo::test {

namespace {

constexpr unsigned manners = 16;
enum Manner : unsigned { Refuses, RefusesMethod, IsMute, Resets, Ends }; // all others echo

void setNonBlocking(SOCKET socket)
{
    u_long on = 1;
    ioctlsocket(socket, static_cast<long>(FIONBIO), &on);
}

} // namespace

EchoProxy::EchoProxy() : m_listener(listeningSocket()), m_port(portOf(m_listener.get()))
{
    setNonBlocking(m_listener.get());
    m_thread = std::thread(&EchoProxy::serve, this);
}

EchoProxy::~EchoProxy()
{
    m_stop = true;
    m_thread.join();
}

void EchoProxy::serve()
{
    std::vector<WSAPOLLFD> polled;
    while (!m_stop) {
        polled.assign(1, {.fd = m_listener.get(), .events = POLLRDNORM, .revents = 0});
        for (const Client &client : m_clients) {
            const bool isFull = client.output.size() > 0x20000;
            polled.push_back(
                {.fd = client.socket.get(),
                 .events = static_cast<SHORT>((isFull ? 0 : POLLRDNORM) | (client.output.isEmpty() ? 0 : POLLWRNORM)),
                 .revents = 0});
        }
        WSAPoll(polled.data(), static_cast<ULONG>(polled.size()), 50);
        for (std::size_t i = m_clients.size(); i > 0; --i) {
            Client &client = m_clients[i - 1];
            const SHORT events = polled[i].revents;
            if (events == 0)
                continue;
            const bool isAlive =
                (!(events & POLLWRNORM) || write(client)) && (!(events & ~POLLWRNORM) || read(client));
            if (!isAlive) {
                std::swap(client, m_clients.back());
                m_clients.pop_back();
            }
        }
        if (polled[0].revents != 0)
            while (acceptOne()) {}
    }
}

bool EchoProxy::acceptOne()
{
    Socket socket(accept(m_listener.get(), nullptr, nullptr));
    if (!socket)
        return false;
    setNonBlocking(socket.get());
    const int on = 1;
    setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, reinterpret_cast<const char *>(&on), sizeof(on));
    Client client;
    client.socket = std::move(socket);
    client.manner = m_random() % manners;
    if (client.manner == Resets || client.manner == Ends)
        client.left = static_cast<qsizetype>(m_random() % 50'000);
    m_clients.push_back(std::move(client));
    return true;
}

bool EchoProxy::read(Client &client)
{
    char block[0x4000];
    const int received = recv(client.socket.get(), block, sizeof(block), 0);
    if (received < 0 && WSAGetLastError() == WSAEWOULDBLOCK)
        return true;
    if (received <= 0) {
        // What it sent last is given back before the end.
        u_long blocking = 0;
        ioctlsocket(client.socket.get(), static_cast<long>(FIONBIO), &blocking);
        return false;
    }
    if (client.manner == IsMute)
        return true;
    if (client.answers < 2) {
        client.input.append(block, received);
        return answer(client);
    }
    client.output.append(block, received);
    if (client.left >= 0 && (client.left -= received) < 0) {
        if (client.manner == Resets)
            resetConnection(client.socket);
        return false;
    }
    return write(client);
}

bool EchoProxy::answer(Client &client)
{
    constexpr qsizetype sizes[] = {3, 10};
    if (client.input.size() < sizes[client.answers])
        return true;
    client.input.remove(0, sizes[client.answers]);
    if (client.answers == 0)
        client.output += QByteArray::fromHex(client.manner == RefusesMethod ? "05ff" : "0500");
    else
        client.output +=
            QByteArray::fromHex(client.manner == Refuses ? "05050001000000000000" : "05000001000000000000");
    ++client.answers;
    return write(client);
}

bool EchoProxy::write(Client &client)
{
    if (client.output.isEmpty())
        return true;
    const int sent = send(client.socket.get(), client.output.constData(), static_cast<int>(client.output.size()), 0);
    if (sent < 0)
        return WSAGetLastError() == WSAEWOULDBLOCK;
    client.output.remove(0, sent);
    return true;
}

} // namespace ruvo::test
