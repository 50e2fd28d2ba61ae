#pragma once

#include "common/winsock_headers.h"

#include <string>

namespace ruvo {

/// The identity of the adapter of this name: the MD5 of "wintun" and the name in UTF-8, its 16 bytes as they are. The
/// same name always gives the same GUID, so Windows keeps the adapter's network profile. All zero (and logged) if it
/// cannot be computed.
GUID deterministicGuid(const std::wstring &name);

} // namespace ruvo
