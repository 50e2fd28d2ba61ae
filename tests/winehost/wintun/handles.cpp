#include "wintun/handles.h"

#include <mutex>

namespace ruvo::winehost {

namespace {

constexpr std::size_t mostEndedSessions = 64;

Handles *s_handles = nullptr;

} // namespace

// Made and deleted with the DLL itself. A process that ends leaves it alone: its other threads are gone by then, with
// whatever locks they held, and the kernel closes what is open.
Handles &Handles::instance()
{
    return *s_handles;
}

WINTUN_ADAPTER_HANDLE Handles::add(std::unique_ptr<Adapter> adapter)
{
    const auto handle = reinterpret_cast<WINTUN_ADAPTER_HANDLE>(adapter.get());
    const std::lock_guard lock(m_lock);
    m_adapters.emplace(handle, std::move(adapter));
    return handle;
}

WINTUN_SESSION_HANDLE Handles::add(std::unique_ptr<Session> session)
{
    const auto handle = reinterpret_cast<WINTUN_SESSION_HANDLE>(session.get());
    const std::lock_guard lock(m_lock);
    m_sessions.emplace(handle, std::move(session));
    return handle;
}

Adapter *Handles::find(WINTUN_ADAPTER_HANDLE handle)
{
    const std::lock_guard lock(m_lock);
    const auto found = m_adapters.find(handle);
    return found != m_adapters.end() ? found->second.get() : nullptr;
}

Session *Handles::find(WINTUN_SESSION_HANDLE handle)
{
    const std::lock_guard lock(m_lock);
    const auto found = m_sessions.find(handle);
    return found != m_sessions.end() ? found->second.get() : nullptr;
}

std::unique_ptr<Adapter> Handles::take(WINTUN_ADAPTER_HANDLE handle)
{
    const std::lock_guard lock(m_lock);
    auto node = m_adapters.extract(handle);
    return node ? std::move(node.mapped()) : nullptr;
}

void Handles::retire(WINTUN_SESSION_HANDLE handle)
{
    const std::lock_guard lock(m_lock);
    auto node = m_sessions.extract(handle);
    if (!node)
        return;
    m_ended.push_back(std::move(node.mapped()));
    if (m_ended.size() > mostEndedSessions)
        m_ended.pop_front();
}

} // namespace ruvo::winehost

namespace __gnu_cxx {
// Of the C++ library: frees the memory that it keeps for exceptions, 72 KiB, which goes with a process, but not with
// a DLL. Declared in no header.
void __freeres();
} // namespace __gnu_cxx

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID processEnds)
{
    using ruvo::winehost::s_handles;
    if (reason == DLL_PROCESS_ATTACH) {
        s_handles = new ruvo::winehost::Handles;
    } else if (reason == DLL_PROCESS_DETACH && !processEnds) {
        delete s_handles;
        __gnu_cxx::__freeres();
    }
    return TRUE;
}
