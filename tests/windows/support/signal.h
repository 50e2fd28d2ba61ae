#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace ruvo::test {

/// Something that one thread tells others, once.
class Signal
{
public:
    void set()
    {
        const std::lock_guard lock(m_mutex);
        m_set = true;
        m_changed.notify_all();
    }
    bool isSet() const
    {
        const std::lock_guard lock(m_mutex);
        return m_set;
    }
    /// False after a time-out, which by default is for a broken build, not a measure.
    bool wait(std::chrono::milliseconds timeout = std::chrono::seconds(15))
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, timeout, [this] { return m_set; });
    }

private:
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_set = false;
};

} // namespace ruvo::test
