#pragma once

#include "common/steady_clock.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>

namespace ruvo {

/// The latest moments at which something happened, as many as count. They may come in any order. One thread at a
/// time.
template<std::size_t Limit>
class LatestMoments
{
public:
    /// If it is full, the earliest one gives way.
    void add(SteadyTime moment)
    {
        if (!isFull()) {
            m_moments[m_count++] = moment;
            return;
        }
        SteadyTime &earliest = *std::ranges::min_element(m_moments);
        earliest = std::max(earliest, moment);
    }
    /// Those up to and with `moment`.
    void forgetUntil(SteadyTime moment)
    {
        const std::span known = std::span(m_moments).first(m_count);
        m_count -= std::ranges::remove_if(known, [moment](SteadyTime one) { return one <= moment; }).size();
    }
    void forgetOne()
    {
        if (m_count > 0)
            --m_count;
    }
    void clear() { m_count = 0; }

    bool isEmpty() const { return m_count == 0; }
    bool isFull() const { return m_count == Limit; }

private:
    std::array<SteadyTime, Limit> m_moments;
    std::size_t m_count = 0;
};

} // namespace ruvo
