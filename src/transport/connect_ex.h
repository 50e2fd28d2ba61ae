#pragma once

#include "common/winsock_headers.h"

#include <mswsock.h>

namespace ruvo {

/// ConnectEx, asked from `socket`'s provider once and kept for the process. Null if there is none. Any thread.
LPFN_CONNECTEX connectExPointer(SOCKET socket);

} // namespace ruvo
