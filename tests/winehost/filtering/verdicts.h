#pragma once

#include "library/lock.h"

#include <windows.h>

#include <array>
#include <cstddef>
#include <mutex>
#include <optional>

namespace ruvo::winehost {

/// Remembers for each key, for a moment, whether it passes. A key has a place in the table, which it may lose to
/// another. Any thread.
template<typename Key>
class Verdicts
{
public:
    static constexpr ULONGLONG keptMs = 50;

    std::optional<bool> find(const Key &key, std::size_t hash, ULONGLONG now)
    {
        Place &place = m_places[hash % m_places.size()];
        const std::lock_guard lock(place.lock);
        if (now >= place.until || !(place.key == key))
            return std::nullopt;
        return place.passes;
    }

    void keep(const Key &key, std::size_t hash, ULONGLONG now, bool passes)
    {
        Place &place = m_places[hash % m_places.size()];
        const std::lock_guard lock(place.lock);
        place.key = key;
        place.until = now + keptMs;
        place.passes = passes;
    }

    void forget()
    {
        for (Place &place : m_places) {
            const std::lock_guard lock(place.lock);
            place.until = 0;
        }
    }

private:
    struct Place
    {
        Lock lock;
        Key key{};
        ULONGLONG until = 0;
        bool passes = false;
    };

    std::array<Place, 256> m_places;
};

} // namespace ruvo::winehost
