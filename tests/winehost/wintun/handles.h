#pragma once

#include "library/lock.h"
#include "wintun/adapter.h"
#include "wintun/session.h"
#include "wintun/wintun_api.h"

#include <deque>
#include <map>
#include <memory>

namespace ruvo::winehost {

/// What the program holds: adapters, and sessions. Ended sessions are kept for a while, for threads that come late.
class Handles
{
public:
    static Handles &instance();

    WINTUN_ADAPTER_HANDLE add(std::unique_ptr<Adapter> adapter);
    WINTUN_SESSION_HANDLE add(std::unique_ptr<Session> session);
    /// Null for what is no handle.
    Adapter *find(WINTUN_ADAPTER_HANDLE handle);
    /// Null for what is no running session.
    Session *find(WINTUN_SESSION_HANDLE handle);
    std::unique_ptr<Adapter> take(WINTUN_ADAPTER_HANDLE handle);
    /// For a session that has ended.
    void retire(WINTUN_SESSION_HANDLE handle);

private:
    Lock m_lock;
    std::map<WINTUN_ADAPTER_HANDLE, std::unique_ptr<Adapter>> m_adapters;
    std::map<WINTUN_SESSION_HANDLE, std::unique_ptr<Session>> m_sessions;
    std::deque<std::unique_ptr<Session>> m_ended;
};

} // namespace ruvo::winehost
