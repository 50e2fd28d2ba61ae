#pragma once

#include "common/capped_log.h"
#include "common/slim_lock.h"
#include "common/windows_handles.h"

#include <deque>
#include <functional>
#include <list>

namespace ruvo {

/// Threads for connects that block: started on demand up to a limit, each with a small stack, gone after a while
/// without work. Jobs are done in the order in which they were posted.
///
/// post is called from any thread, stop once, by the owner.
class ConnectionThreads
{
public:
    using Job = std::move_only_function<void()>;

    explicit ConnectionThreads(unsigned limit) : m_limit(limit) {}
    ~ConnectionThreads() { stop(); }
    ConnectionThreads(const ConnectionThreads &) = delete;
    ConnectionThreads &operator=(const ConnectionThreads &) = delete;

    /// False if the job is dropped (with what it owns): after stop, or while not even one thread can be had.
    bool post(Job job);
    /// Drops the jobs that wait, and waits for those that run: whoever calls this has seen to it that they end.
    void stop();

private:
    struct Thread
    {
        KernelHandle handle;
        bool finished = false;
    };
    struct Start
    {
        ConnectionThreads *pool;
        std::list<Thread>::iterator thread;
    };

    static unsigned __stdcall main(void *start);
    void run(std::list<Thread>::iterator self);
    bool startThread();
    void reapFinished();

    const unsigned m_limit;
    SlimLock m_mutex;
    SlimCondition m_changed;
    bool m_stopped = false;
    std::deque<Job> m_jobs;
    std::list<Thread> m_threads;
    unsigned m_running = 0;
    unsigned m_idle = 0;
    /// Each job that is posted while there is none to be had is one.
    CappedLog m_failures{10, 100};
};

} // namespace ruvo
