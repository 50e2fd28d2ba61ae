#pragma once

#include "common/windows_handles.h"

#include <QByteArray>

#include <atomic>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

namespace ruvo::test {

/// A proxy for many connections on one thread, most of which give back what they get. Others refuse, are mute, reset
/// the connection or end it early.
class EchoProxy
{
public:
    EchoProxy();
    ~EchoProxy();
    EchoProxy(const EchoProxy &) = delete;
    EchoProxy &operator=(const EchoProxy &) = delete;

    std::uint16_t port() const { return m_port; }

private:
    struct Client
    {
        Socket socket;
        QByteArray input;  ///< of the handshake
        QByteArray output; ///< what could not be sent yet
        int answers = 0;   ///< of the handshake: 2 when it is over
        unsigned manner = 0;
        qsizetype left = -1; ///< bytes until it ends by itself; negative: never
    };

    void serve();
    /// False if nobody waits.
    bool acceptOne();
    /// False if it is over.
    bool read(Client &client);
    bool answer(Client &client);
    static bool write(Client &client);

    const Socket m_listener;
    const std::uint16_t m_port;
    std::atomic<bool> m_stop = false;
    std::mt19937 m_random{2026};
    std::vector<Client> m_clients;
    std::thread m_thread;
};

} // namespace ruvo::test
