#include "io/connection_threads.h"

#include "common/log_category.h"

#include <process.h>

#include <cerrno>
#include <chrono>
#include <iterator>
#include <memory>
#include <utility>

namespace ruvo {

namespace {

constexpr unsigned stackSize = 0x40000;
constexpr std::chrono::seconds idleTime{10};

} // namespace

bool ConnectionThreads::post(Job job)
{
    const std::lock_guard lock(m_mutex);
    if (m_stopped)
        return false;
    reapFinished();
    if (m_idle <= m_jobs.size() && m_running < m_limit && !startThread() && m_running == 0)
        return false;
    m_jobs.push_back(std::move(job));
    m_changed.notifyOne();
    return true;
}

bool ConnectionThreads::startThread()
{
    // In a list of its own until the thread runs: what fails before, also by exceptions, leaves nothing behind.
    std::list<Thread> one(1);
    const auto thread = one.begin();
    auto start = std::make_unique<Start>(Start{this, thread});
    thread->handle.reset(reinterpret_cast<HANDLE>(_beginthreadex(
        nullptr, stackSize, &ConnectionThreads::main, start.get(), STACK_SIZE_PARAM_IS_A_RESERVATION, nullptr)));
    if (!thread->handle) {
        const int error = errno;
        if (m_failures.take())
            qCWarning(lcRuvod) << "Failed to start a connection thread:" << error;
        return false;
    }
    static_cast<void>(start.release()); // the thread's own now
    m_threads.splice(m_threads.end(), one);
    ++m_running;
    return true;
}

unsigned ConnectionThreads::main(void *start)
{
    const std::unique_ptr<Start> own(static_cast<Start *>(start));
    own->pool->run(own->thread);
    return 0;
}

void ConnectionThreads::run(std::list<Thread>::iterator self)
{
    std::unique_lock lock(m_mutex);
    for (;;) {
        ++m_idle;
        const bool isWoken = m_changed.waitFor(lock, idleTime, [this] { return m_stopped || !m_jobs.empty(); });
        --m_idle;
        if (!isWoken || m_stopped)
            break;
        Job job = std::move(m_jobs.front());
        m_jobs.pop_front();
        lock.unlock();
        job();
        job = nullptr; // what it owns goes without the lock
        lock.lock();
    }
    --m_running;
    self->finished = true;
}

/// They say so under the lock, which is held here: what they still do is to return.
void ConnectionThreads::reapFinished()
{
    std::erase_if(m_threads, [](const Thread &thread) {
        return thread.finished && WaitForSingleObject(thread.handle.get(), INFINITE) == WAIT_OBJECT_0;
    });
}

void ConnectionThreads::stop()
{
    std::deque<Job> dropped;
    std::list<Thread> threads;
    {
        const std::lock_guard lock(m_mutex);
        m_stopped = true;
        dropped.swap(m_jobs);
        threads.swap(m_threads);
        m_changed.notifyAll();
    }
    for (const Thread &thread : threads)
        WaitForSingleObject(thread.handle.get(), INFINITE);
}

} // namespace ruvo
