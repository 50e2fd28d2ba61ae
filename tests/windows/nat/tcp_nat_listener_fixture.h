#pragma once

#include "windows/nat/nat_test.h"

#include "io/socket_options.h"
#include "nat/tcp_nat_listener.h"

#include <mutex>
#include <optional>

namespace ruvo::test {

/// A listener on 127.0.0.1, and clients whose source ports the test chooses, as the rewritten packets' are.
class TcpNatListenerTest : public NatTest
{
protected:
    struct Accepted
    {
        Socket socket;
        TcpNatSessionPtr session;
    };

    bool start()
    {
        return m_listener->initialize(
            INADDR_LOOPBACK, 0, m_port,
            [this](Socket client, const TcpNatSessionPtr &session) {
                const std::lock_guard lock(m_mutex);
                m_accepted.push_back({std::move(client), session});
            },
            m_listenPort);
    }

    void TearDown() override
    {
        m_listener->shutdown();
        m_listener.reset();
        NatTest::TearDown();
    }

    /// The listener's address and the next one, which packets from the tunnel come from.
    static constexpr std::uint32_t listenAddress = INADDR_LOOPBACK;
    static constexpr std::uint32_t natAddress = listenAddress + 1;

    /// From `sourcePort`, or any if it is 0. None if that port is taken, or nobody listens.
    Socket connectFrom(std::uint16_t sourcePort, std::uint32_t sourceAddress = natAddress) const
    {
        Socket socket(WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0, WSA_FLAG_OVERLAPPED));
        const sockaddr_in source = socketAddress(sourceAddress, sourcePort);
        const sockaddr_in listener = loopbackAddress(m_listenPort);
        if (bind(socket.get(), reinterpret_cast<const sockaddr *>(&source), sizeof(source)) != 0
            || connect(socket.get(), reinterpret_cast<const sockaddr *>(&listener), sizeof(listener)) != 0) {
            return {};
        }
        const DWORD timeout = 20000;
        setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char *>(&timeout), sizeof(timeout));
        return socket;
    }

    struct Client
    {
        Socket socket;
        std::uint16_t natPort = 0;
    };
    /// From the NAT port of a new session.
    Client connectClient()
    {
        for (int attempt = 0; attempt < 100; ++attempt) { // the machine may use some of these ports itself
            const std::uint16_t natPort =
                m_listener->table().allocateNatPort(0x0A060701, ++m_clientPort, 0x5DB8D822, 443);
            if (Socket socket = connectFrom(natPort))
                return {std::move(socket), natPort};
        }
        ADD_FAILURE() << "no connection could be made";
        return {};
    }

    std::size_t acceptedCount()
    {
        const std::lock_guard lock(m_mutex);
        return m_accepted.size();
    }
    /// Waits for the next accepted connection and takes it.
    std::optional<Accepted> takeAccepted()
    {
        if (!waitUntil([this] { return acceptedCount() > 0; }))
            return std::nullopt;
        const std::lock_guard lock(m_mutex);
        Accepted first = std::move(m_accepted.front());
        m_accepted.erase(m_accepted.begin());
        return first;
    }

    std::shared_ptr<TcpNatListener> m_listener = std::make_shared<TcpNatListener>();
    std::uint16_t m_listenPort = 0;

private:
    std::uint16_t m_clientPort = 0;
    std::mutex m_mutex;
    std::vector<Accepted> m_accepted;
};

} // namespace ruvo::test
