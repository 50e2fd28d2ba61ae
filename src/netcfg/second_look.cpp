#include "netcfg/second_look.h"

namespace ruvo {

bool SecondLook::looksAgain(SteadyTime now) noexcept
{
    if (m_packets > 0) {
        m_isDense = now - m_emptySince <= m_packets * dense;
        m_packets = 0;
        m_emptySince = now;
    }
    return m_isDense && now - m_emptySince < patience;
}

} // namespace ruvo
