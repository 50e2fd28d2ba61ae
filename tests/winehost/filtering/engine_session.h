#pragma once

#include "filtering/engine_connection.h"
#include "library/lock.h"

#include <windows.h>

#include <cstdint>
#include <memory>

namespace ruvo::winehost {

/// What a handle of the filtering engine stands for: a connection of its own. Any thread.
class EngineSession
{
public:
    EngineSession(EngineConnection connection, bool isDynamic);

    /// One question; what the engine says besides the error comes in `answer`. RPC_S_CALL_FAILED once the connection
    /// is gone.
    DWORD ask(const JsonLine &question, JsonValue *answer = nullptr);

    /// Handles are numbered, so that the journal shows which call was of which session.
    unsigned long number() const { return m_number; }
    bool isDynamic() const { return m_isDynamic; }

private:
    Lock m_lock;
    EngineConnection m_connection;
    const bool m_isDynamic;
    const unsigned long m_number;
};

HANDLE addSession(std::shared_ptr<EngineSession> session);
/// Null for what is no handle of the engine, or no more.
std::shared_ptr<EngineSession> sessionOf(HANDLE handle);
/// Makes the handle invalid.
std::shared_ptr<EngineSession> takeSession(HANDLE handle);

} // namespace ruvo::winehost
