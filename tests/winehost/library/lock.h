#pragma once

#include <windows.h>

namespace ruvo::winehost {

/// A lock that costs next to nothing while nobody else wants it: packets pass through several of them. Besides,
/// std::mutex and its like leave handles behind in a DLL that is loaded and freed again and again.
class Lock
{
public:
    void lock() { AcquireSRWLockExclusive(&m_lock); }
    void unlock() { ReleaseSRWLockExclusive(&m_lock); }
    /// Waits, without the lock, until somebody wakes the waiters of `changed`.
    void wait(CONDITION_VARIABLE &changed) { SleepConditionVariableSRW(&changed, &m_lock, INFINITE, 0); }

private:
    SRWLOCK m_lock = SRWLOCK_INIT;
};

} // namespace ruvo::winehost
