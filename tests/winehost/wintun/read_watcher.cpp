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
    m_thread.emplace([this] { watch(); });
}

ReadWatcher::~ReadWatcher()
{
    const std::uint64_t one = 1;
    systemCall(SystemCall::write, m_stop.get(), &one, sizeof one);
}

bool ReadWatcher::isRunning() const
{
    return m_thread && m_thread->isRunning();
}

void ReadWatcher::arm()
{
    control(m_poll, EPOLL_CTL_MOD, m_watched, whenReadable | once, watchedTag);
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
