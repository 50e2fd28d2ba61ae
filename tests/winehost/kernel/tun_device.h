#pragma once

#include "kernel/system_call.h"

#include <expected>
#include <string_view>

namespace ruvo::winehost {

/// What openTun has to find.
enum class TunInterface { isNew, exists };

/// A descriptor that exchanges packets with a TUN interface, one IP packet a call, without waiting; or Linux's error
/// number. An interface that was made goes with its last descriptor. Several descriptors may be open on it: packets
/// go to those that are attached, and only they count as queues.
std::expected<Descriptor, int> openTun(std::string_view link, TunInterface expected);

/// The descriptor keeps the interface alive, but gets no packets any more.
int detachQueue(const Descriptor &tun);

} // namespace ruvo::winehost
