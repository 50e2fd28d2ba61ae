#pragma once

#include "common/steady_clock.h"

#include <chrono>
#include <cstdint>

namespace ruvo {

/// Whether the reader of an empty ring looks again before it sleeps. A sleep costs two switches of threads and the
/// driver a wake-up for the next packet: too much where the next one is a few microseconds away, nothing where
/// packets are rare. So the reader looks again for a short time while packets are dense, and sleeps at once when they
/// are not.
///
/// For one thread. Time is read at empty receives only, not with each packet.
class SecondLook
{
public:
    /// Packets are dense while they came at this distance or closer since the ring was empty before.
    static constexpr std::chrono::microseconds dense{100};
    /// How long the ring may be empty before the reader sleeps all the same.
    static constexpr std::chrono::microseconds patience{50};

    /// The ring gave a packet.
    void tookPacket() noexcept { ++m_packets; }
    /// The ring is empty, now: whether to look again instead of sleeping.
    bool looksAgain(SteadyTime now) noexcept;

private:
    std::int64_t m_packets = 0; ///< since the ring was empty before
    SteadyTime m_emptySince{};
    bool m_isDense = false;
};

} // namespace ruvo
