#pragma once

#include "engine/connection_key.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <vector>

namespace ruvo {

// What a UDP flow of the engine keeps, and what it reads: bytes in, bytes out. Nothing is locked or logged.

/// Where a datagram is to go, of either IP version. Host order.
struct UdpDestination
{
    std::uint8_t family = 4; ///< 4 or 6
    std::uint32_t ip = 0;
    Ipv6Bytes ip6{}; ///< as on the wire
    std::uint16_t port = 0;
    bool operator==(const UdpDestination &) const = default;
};
/// Where the flow's datagrams really go.
UdpDestination destinationOf(const ConnectionKey &key);

/// One datagram as it waits: a byte with the address type (4 or 6), the address and the port as on the wire, and the
/// payload.
using StoredDatagram = std::vector<std::uint8_t>;
StoredDatagram storeDatagram(const UdpDestination &destination, std::span<const std::uint8_t> payload);

/// What was stored; `payload` points into it.
struct FlowDatagram
{
    UdpDestination destination;
    std::span<const std::uint8_t> payload;
};
/// Nothing if it is shorter than its address (7 bytes with IPv4, 19 with IPv6), or of an unknown type.
std::optional<FlowDatagram> readStoredDatagram(std::span<const std::uint8_t> stored);

/// The datagrams of one flow that wait for its association, in order. Bounded: of those that a proxy keeps waiting,
/// the newest are the ones that somebody still waits for.
class UdpDatagramQueue
{
public:
    static constexpr std::size_t maxDatagrams = 64;

    /// The oldest makes room.
    void add(StoredDatagram datagram);
    /// All of them, the oldest first.
    std::deque<StoredDatagram> take();
    std::size_t size() const { return m_datagrams.size(); }

private:
    std::deque<StoredDatagram> m_datagrams;
};

/// A datagram that came from the relay, without its header.
struct RelayedDatagram
{
    std::uint16_t originPort = 0;
    std::span<const std::uint8_t> payload;
    /// Whether it comes from a DNS server and is long enough to answer something.
    bool mayHoldNames() const;
};
/// Nothing if the header is cut short or of an unknown address type (RFC 1928 section 7). Reserved and fragment bytes
/// do not matter.
std::optional<RelayedDatagram> readRelayedDatagram(std::span<const std::uint8_t> datagram);

} // namespace ruvo
