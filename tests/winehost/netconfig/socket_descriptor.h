#pragma once

#include "kernel/system_call.h"

namespace ruvo::winehost {

/// The Linux descriptor behind a file handle of this process, a socket's for example. Empty if it has none.
Descriptor descriptorOf(void *handle);

} // namespace ruvo::winehost
