#pragma once

#include "io/completion_port.h"

#include "windows/io/winsock_test.h"

#include <atomic>
#include <cstring>
#include <functional>
#include <memory>

namespace ruvo::test {

/// An operation that writes down how it was completed.
class Noted : public IoOperation
{
public:
    int completions = 0;
    DWORD bytes = 0;
    DWORD error = 0;
    const void *record = nullptr;
    std::function<void()> onCompletion;

protected:
    void completed(const std::shared_ptr<void> &owner, DWORD count, DWORD failure) noexcept override
    {
        ++completions;
        bytes = count;
        error = failure;
        record = owner.get();
        if (onCompletion)
            onCompletion();
    }
};

/// What a relay or a flow is: a socket with its operation and the memory that Windows writes to.
struct Record
{
    explicit Record(std::atomic<int> &counter) : alive(counter) { ++alive; }
    ~Record() { --alive; }

    std::atomic<int> &alive;
    Socket socket;
    Noted receive;
    char buffer[64] = {};
};

/// A port, a record whose socket is on it, and the other end of that socket.
class CompletionPortTest : public WinsockTest
{
protected:
    void SetUp() override
    {
        auto [client, server] = connectedSockets();
        m_peer = std::move(server);
        m_record = std::make_shared<Record>(m_alive);
        m_record->socket = std::move(client);
        ASSERT_TRUE(m_port.open());
        ASSERT_TRUE(m_port.associate(m_record->socket.get(), CompletionKey::RelayReceive));
    }

    /// Into the record's buffer. `skipsPort` is what skipPortOnSuccess said of its socket.
    CompletionPort::Issued receive(bool skipsPort = false)
    {
        const auto call = [this](DWORD &bytes) {
            WSABUF buffer{sizeof(m_record->buffer), m_record->buffer};
            DWORD flags = 0;
            return WSARecv(m_record->socket.get(), &buffer, 1, &bytes, &flags, &m_record->receive, nullptr) == 0;
        };
        return m_port.issue(m_record->receive, m_record, skipsPort, call);
    }
    void postReceive() { ASSERT_EQ(receive().state, CompletionPort::Issued::State::InFlight) << WSAGetLastError(); }
    void answer(const char *text) const { ASSERT_GT(send(m_peer.get(), text, static_cast<int>(strlen(text)), 0), 0); }

    std::atomic<int> m_alive = 0;
    Socket m_peer;
    std::shared_ptr<Record> m_record;
    CompletionPort m_port;
};

} // namespace ruvo::test
