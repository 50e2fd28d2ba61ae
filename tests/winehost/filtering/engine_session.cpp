#include "filtering/engine_session.h"

#include <atomic>
#include <map>
#include <mutex>

namespace ruvo::winehost {

namespace {

std::atomic<unsigned long> s_lastNumber = 0;

Lock s_lock;
std::map<HANDLE, std::shared_ptr<EngineSession>> s_sessions;

/// Nothing that another function would take for a handle of its own.
constexpr std::uintptr_t handleMark = 0xF17E'0000'0000;

} // namespace

EngineSession::EngineSession(EngineConnection connection, bool isDynamic)
    : m_connection(std::move(connection)), m_isDynamic(isDynamic), m_number(++s_lastNumber)
{}

DWORD EngineSession::ask(const JsonLine &question, JsonValue *answer)
{
    const std::lock_guard lock(m_lock);
    auto answered = m_connection.ask(question);
    if (!answered)
        return RPC_S_CALL_FAILED;
    const auto error = static_cast<DWORD>((*answered)["error"].number);
    if (answer)
        *answer = *std::move(answered);
    return error;
}

HANDLE addSession(std::shared_ptr<EngineSession> session)
{
    const auto handle = reinterpret_cast<HANDLE>(handleMark + 16 * std::uintptr_t{session->number()});
    const std::lock_guard lock(s_lock);
    s_sessions.emplace(handle, std::move(session));
    return handle;
}

std::shared_ptr<EngineSession> sessionOf(HANDLE handle)
{
    const std::lock_guard lock(s_lock);
    const auto found = s_sessions.find(handle);
    return found == s_sessions.end() ? nullptr : found->second;
}

std::shared_ptr<EngineSession> takeSession(HANDLE handle)
{
    const std::lock_guard lock(s_lock);
    const auto found = s_sessions.extract(handle);
    return found ? found.mapped() : nullptr;
}

} // namespace ruvo::winehost
