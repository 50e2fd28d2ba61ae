#include "wintun/read_watcher.h"

#include <cstdint>

#include <linux/eventpoll.h>

namespace ruvo::winehost {

namespace {

constexpr auto whenReadable = static_cast<std::uint32_t>(EPOLLIN);
constexpr auto once = static_cast<std::uint32_t>(EPOLLONESHOT); // then not watched until it is armed again
constexpr std::uint64_t stopTag = 1;
constexpr std::uint64_t watchedTag = 2;

std::int64_t control(const Descriptor &poll, int operation, int descriptor, std::uint32_t events, std::uint64_t tag)
{
    epoll_event event{};
    event.events = static_cast<__poll_t>(events);
    event.data = tag;
    return systemCall(SystemCall::epollControl, poll.get(), operation, descriptor, &event);
}

} // namespace

ReadWatcher::ReadWatcher(const Descriptor &watched, HANDLE event)
    : m_watched(watched.get())
    , m_event(event)
    , m_poll(systemCall(SystemCall::epollCreate, open_flags::closeOnExec))
    , m_stop(systemCall(SystemCall::eventDescriptor, 0, open_flags::closeOnExec))
{
    if (control(m_poll, EPOLL_CTL_ADD, m_stop.get(), whenReadable, stopTag) < 0
        || control(m_poll, EPOLL_CTL_ADD, m_watched, once, watchedTag) < 0) {
        return;
    }
    m_thread.reset(CreateThread(nullptr, 0x10000, run, this, 0, nullptr));
    // The thread keeps the DLL loaded: a program that frees it before it ends its session would otherwise have the
    // thread's code taken away, or wait for ever for a thread that needs the loader's lock.
    HMODULE ignored = nullptr;
    if (m_thread)
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS, reinterpret_cast<LPCWSTR>(&ReadWatcher::run),
                           &ignored);
}

ReadWatcher::~ReadWatcher()
{
    if (!m_thread)
        return;
    const std::uint64_t one = 1;
    systemCall(SystemCall::write, m_stop.get(), &one, sizeof one);
    WaitForSingleObject(m_thread.get(), INFINITE);
}

void ReadWatcher::arm()
{
    control(m_poll, EPOLL_CTL_MOD, m_watched, whenReadable | once, watchedTag);
}

DWORD WINAPI ReadWatcher::run(void *watcher)
{
    static_cast<ReadWatcher *>(watcher)->watch();
    HMODULE self = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<LPCWSTR>(&ReadWatcher::run), &self);
    FreeLibraryAndExitThread(self, 0);
}

void ReadWatcher::watch()
{
    for (;;) {
        epoll_event event{};
        const std::int64_t count =
            untilNotInterrupted([&] { return systemCall(SystemCall::epollWait, m_poll.get(), &event, 1, -1); });
        if (count != 1 || event.data == stopTag)
            return;
        SetEvent(m_event);
    }
}

} // namespace ruvo::winehost
