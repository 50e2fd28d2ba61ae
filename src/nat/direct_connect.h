#pragma once

#include "common/windows_handles.h"

#include <cstdint>

namespace ruvo {

/// Connects to the destination itself, past the proxy and, where `physicalInterface` is known (not 0), past the
/// tunnel. Waits 10 s at most and gives up when `stopEvent` is set. The socket is non-blocking; none on failure,
/// which is logged. Address and port in host order.
Socket connectDirectly(std::uint32_t address, std::uint16_t port, std::uint32_t physicalInterface, HANDLE stopEvent);

} // namespace ruvo
