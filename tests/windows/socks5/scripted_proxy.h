#pragma once

#include "common/windows_handles.h"

#include <QByteArray>

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <utility>

namespace ruvo::test {

/// The proxy's end of one connection. All waits end after 20 s.
class ProxyConnection
{
public:
    explicit ProxyConnection(Socket socket);

    /// Exactly so many bytes; fewer at the end of the stream.
    QByteArray receive(qsizetype count);
    void send(const QByteArray &bytes);
    /// Reads until the client has closed its end.
    void waitForEnd();
    /// Sends no more; the client sees the end of the stream.
    void shutDown();
    void close() { m_socket.reset(); }
    /// For a test that goes on with it by itself.
    Socket take() { return std::move(m_socket); }
    /// Closes with a reset instead of an end of stream.
    void reset();

private:
    Socket m_socket;
};

/// Listens on 127.0.0.1 and serves one connection after another by a script, on a thread of its own.
class ScriptedProxy
{
public:
    using Script = std::function<void(ProxyConnection &client)>;

    explicit ScriptedProxy(Script script);
    ~ScriptedProxy();
    ScriptedProxy(const ScriptedProxy &) = delete;
    ScriptedProxy &operator=(const ScriptedProxy &) = delete;

    std::uint16_t port() const { return m_port; }

private:
    void serve();

    const Script m_script;
    const Socket m_listener;
    const std::uint16_t m_port;
    std::atomic<bool> m_stop = false;
    std::thread m_thread;
};

} // namespace ruvo::test
