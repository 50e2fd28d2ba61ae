#pragma once

#include "common/winsock_headers.h"

#include <chrono>
#include <mutex>

namespace ruvo {

/// A slim lock of the system's, for std::lock_guard and std::unique_lock. Not recursive.
class SlimLock
{
public:
    SlimLock() = default;
    SlimLock(const SlimLock &) = delete;
    SlimLock &operator=(const SlimLock &) = delete;

    void lock() { AcquireSRWLockExclusive(&m_lock); }
    void unlock() { ReleaseSRWLockExclusive(&m_lock); }

private:
    friend class SlimCondition;
    SRWLOCK m_lock = SRWLOCK_INIT;
};

/// To wait under a SlimLock until something has changed. Waking a thread up takes one call to the system; the
/// standard library's condition variables are made of semaphores here, and take five.
class SlimCondition
{
public:
    SlimCondition() = default;
    SlimCondition(const SlimCondition &) = delete;
    SlimCondition &operator=(const SlimCondition &) = delete;

    /// Whether `predicate` has come true: false after `timeout`.
    template<typename Predicate>
    bool waitFor(std::unique_lock<SlimLock> &lock, std::chrono::milliseconds timeout, Predicate predicate)
    {
        using Clock = std::chrono::steady_clock;
        const auto deadline = Clock::now() + timeout;
        while (!predicate()) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
            if (left <= 0)
                return false;
            SleepConditionVariableSRW(&m_condition, &lock.mutex()->m_lock, static_cast<DWORD>(left), 0);
        }
        return true;
    }
    void notifyOne() { WakeConditionVariable(&m_condition); }
    void notifyAll() { WakeAllConditionVariable(&m_condition); }

private:
    CONDITION_VARIABLE m_condition = CONDITION_VARIABLE_INIT;
};

} // namespace ruvo
