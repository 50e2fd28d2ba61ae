#pragma once

#include "kernel/links.h"

#include "common/winsock_headers.h"

#include <netioapi.h>

#include <optional>

namespace ruvo::winehost {

/// How Windows names a Linux interface: the index is Linux's own, the LUID holds index and type, both as Wine has
/// them, so that what Wine itself answers goes together with it. Only a Wintun adapter has the type that its driver
/// gives it: the few functions that are Wine's own and take a LUID (GetIfEntry2, ConvertInterfaceLuidToAlias,
/// …ToName) do not know that one.
NET_LUID luidOf(const Link &link);

/// A Wintun adapter's own GUID, else the one that Wine gives the interface.
GUID guidOf(const Link &link);

/// The interface of a LUID, or, where that is 0, of an index.
std::optional<Link> findLink(const NET_LUID &luid, NET_IFINDEX index = 0);
std::optional<Link> findLink(const GUID &guid);

} // namespace ruvo::winehost
