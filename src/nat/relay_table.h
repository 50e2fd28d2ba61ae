#pragma once

#include "nat/relay_session.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>

namespace ruvo {

/// The relays of a tunnel, by id. From any thread; the mutex is held to find and collect only, never over a call into
/// a session.
class RelayTable
{
public:
    std::uint64_t nextId() { return m_nextId++; }

    /// False, and nothing is kept, after closeAll.
    bool insert(const RelaySessionPtr &session);
    void remove(std::uint64_t id);
    /// Closes those whose second direction does not end.
    void closeOverdue();
    /// Aborts all; nothing is inserted any more. Logs how many they were.
    void closeAll();
    std::size_t size() const;

private:
    mutable std::mutex m_mutex;
    bool m_closed = false;
    std::map<std::uint64_t, RelaySessionPtr> m_sessions;
    std::atomic<std::uint64_t> m_nextId = 0;
};

} // namespace ruvo
