#pragma once

#include <cstdint>
#include <functional>

namespace ruvo {

/// What a completion worker does beside completions, counted by those that it dequeued (never by time-outs).
/// One for each worker, used by that worker only.
class WorkerHousekeeping
{
public:
    static constexpr std::uint64_t flowSweepInterval = 100;
    static constexpr std::uint64_t diagnosticsInterval = 2000;

    struct Tasks
    {
        /// Ends the flows that have been idle for too long. Every worker.
        std::function<void()> sweepIdleFlows;
        /// Logs the connections by state. Worker 0 only.
        std::function<void()> logConnectionStates;
    };

    WorkerHousekeeping(unsigned workerIndex, const Tasks &tasks) : m_workerIndex(workerIndex), m_tasks(tasks) {}

    void afterCompletion()
    {
        ++m_completions;
        if (m_completions % flowSweepInterval == 0 && m_tasks.sweepIdleFlows)
            m_tasks.sweepIdleFlows();
        if (m_workerIndex == 0 && m_completions % diagnosticsInterval == 0 && m_tasks.logConnectionStates)
            m_tasks.logConnectionStates();
    }

private:
    const unsigned m_workerIndex;
    const Tasks &m_tasks;
    std::uint64_t m_completions = 0;
};

} // namespace ruvo
