#include "wintun/read_watcher.h"

#include <cstdint>

#include <linux/eventpoll.h>

namespace ruvo::winehost {

namespace {

constexpr auto whenReadable = static_cast<std::uint32_t>(EPOLLIN);
constexpr auto once = static_cast<std::uint32_t>(EPOLLONESHOT);   // then not watched until it is armed again
constexpr auto whenChanged = static_cast<std::uint32_t>(EPOLLET); // told of each arrival, not of what lies there
constexpr std::uint64_t stopTag = 1;
constexpr std::uint64_t tunTag = 2;

std::int64_t control(const Descriptor &poll, int operation, int descriptor, std::uint32_t events, std::uint64_t tag)
{
    epoll_event event{};
    event.events = static_cast<__poll_t>(events);
    event.data = tag;
    return systemCall(SystemCall::epollControl, poll.get(), operation, descriptor, &event);
}

std::int64_t wait(const Descriptor &poll, epoll_event &event, int timeoutMs)
{
    return untilNotInterrupted([&] { return systemCall(SystemCall::epollWait, poll.get(), &event, 1, timeoutMs); });
}

} // namespace

ReadWatcher::ReadWatcher(const Descriptor &tun, HANDLE event)
    : m_tun(tun.get())
    , m_event(event)
    , m_poll(systemCall(SystemCall::epollCreate, open_flags::closeOnExec))
    , m_stop(systemCall(SystemCall::eventDescriptor, 0, open_flags::closeOnExec))
    , m_news(systemCall(SystemCall::epollCreate, open_flags::closeOnExec))
{
    if (control(m_poll, EPOLL_CTL_ADD, m_stop.get(), whenReadable, stopTag) < 0
        || control(m_poll, EPOLL_CTL_ADD, m_tun, whenReadable | once, tunTag) < 0
        || control(m_news, EPOLL_CTL_ADD, m_tun, whenReadable | whenChanged, tunTag) < 0) {
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
    if (!m_isArmed.exchange(true))
        control(m_poll, EPOLL_CTL_MOD, m_tun, whenReadable | once, tunTag);
}

void ReadWatcher::watch()
{
    constexpr int forEver = -1;
    constexpr int betweenMs = 10;
    for (;;) {
        epoll_event event{};
        const std::int64_t count = wait(m_poll, event, m_isArmed ? forEver : betweenMs);
        if (count < 0 || (count == 1 && event.data == stopTag))
            return;
        if (count == 0) {
            lookBetween();
            continue;
        }
        m_isArmed = false;
        takeNews(); // the event is for all that have come so far
        SetEvent(m_event);
    }
}

// A program that does not come back for what lies there is looked after until it has taken it.
void ReadWatcher::lookBetween()
{
    if (m_isArmed)
        return;
    if (takeNews())
        SetEvent(m_event);
    else if (!isReadable())
        arm();
}

bool ReadWatcher::takeNews()
{
    epoll_event event{};
    return wait(m_news, event, 0) == 1;
}

bool ReadWatcher::isReadable() const
{
    struct // pollfd
    {
        int descriptor;
        std::int16_t events;
        std::int16_t happened;
    } asked{m_tun, static_cast<std::int16_t>(EPOLLIN), 0};
    return untilNotInterrupted([&] { return systemCall(SystemCall::poll, &asked, 1, 0); }) != 0;
}

} // namespace ruvo::winehost
