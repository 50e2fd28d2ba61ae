#pragma once

#include "common/windows_handles.h"

#include <cstdint>
#include <vector>

namespace ruvo::test {

/// A port of 127.0.0.1 where a connect is neither accepted nor refused: the queue of its listener is full.
class MutePort
{
public:
    MutePort();
    std::uint16_t number() const { return m_number; }

private:
    Socket m_listener;
    std::uint16_t m_number = 0;
    std::vector<Socket> m_queue;
};

} // namespace ruvo::test
