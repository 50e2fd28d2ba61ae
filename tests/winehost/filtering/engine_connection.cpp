#include "filtering/engine_connection.h"

#include <cstddef>
#include <cstring>

namespace ruvo::winehost {

namespace {

constexpr int unixFamily = 1;      // AF_UNIX
constexpr int streamSocket = 1;    // SOCK_STREAM
constexpr int socketLevel = 1;     // SOL_SOCKET
constexpr int receiveTimeout = 20; // SO_RCVTIMEO
constexpr int noSignal = 0x4000;   // MSG_NOSIGNAL

/// Long enough for an engine that makes new rules for the kernel while the machine is busy.
constexpr std::int64_t answerSeconds = 20;

struct TimeValue
{
    std::int64_t seconds;
    std::int64_t microseconds;
};

struct UnixAddress
{
    std::uint16_t family = unixFamily;
    char path[108] = {};
};

/// A name that begins with a zero is no file's: it belongs to the network namespace.
constexpr char engineName[] = "\0ruvod-filter-engine";
constexpr std::size_t engineNameSize = sizeof engineName - 1;

} // namespace

bool EngineConnection::connect()
{
    m_received.clear();
    m_socket = Descriptor(systemCall(SystemCall::socket, unixFamily, streamSocket | open_flags::closeOnExec, 0));
    const TimeValue limit{answerSeconds, 0};
    systemCall(SystemCall::setSocketOption, m_socket.get(), socketLevel, receiveTimeout, &limit, sizeof limit);
    UnixAddress address;
    std::memcpy(address.path, engineName, engineNameSize);
    const std::size_t size = offsetof(UnixAddress, path) + engineNameSize;
    if (untilNotInterrupted([&] { return systemCall(SystemCall::connect, m_socket.get(), &address, size); }) != 0)
        m_socket.reset();
    return static_cast<bool>(m_socket);
}

std::optional<JsonValue> EngineConnection::ask(const JsonLine &question)
{
    if (m_socket && send(question.text() + '\n')) {
        if (const auto line = receiveLine()) {
            if (auto answer = parseJson(*line); answer && (*answer)["error"].isNumber())
                return answer;
        }
    }
    m_socket.reset();
    return std::nullopt;
}

bool EngineConnection::send(std::string_view text)
{
    while (!text.empty()) {
        const std::int64_t count = untilNotInterrupted(
            [&] { return systemCall(SystemCall::sendTo, m_socket.get(), text.data(), text.size(), noSignal); });
        if (count <= 0)
            return false;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

std::optional<std::string> EngineConnection::receiveLine()
{
    std::size_t end = m_received.find('\n');
    while (end == std::string::npos) {
        char block[4096];
        const std::int64_t count = untilNotInterrupted(
            [&] { return systemCall(SystemCall::receiveFrom, m_socket.get(), block, sizeof block); });
        if (count <= 0)
            return std::nullopt;
        m_received.append(block, static_cast<std::size_t>(count));
        end = m_received.find('\n');
    }
    std::string line = m_received.substr(0, end);
    m_received.erase(0, end + 1);
    return line;
}

} // namespace ruvo::winehost
