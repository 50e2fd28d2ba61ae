#pragma once

#include <cstddef>
#include <cstdint>

namespace ruvo {

/// Writes a built TCP packet to the log while the caps of its kind last: the first 20 acknowledgements and the
/// first 5 answers to a SYN of a process. `ip` and `tcp` are finished headers. Any thread.
void reportBuiltTcpPacket(const std::uint8_t *ip, const std::uint8_t *tcp, std::size_t tcpHeaderLen,
                          std::size_t payloadLen);

} // namespace ruvo
