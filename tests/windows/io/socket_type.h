#pragma once

#include "common/winsock_headers.h"

namespace ruvo::test {

/// SOCK_STREAM or SOCK_DGRAM.
inline int socketType(SOCKET socket)
{
    int type = 0;
    int size = sizeof(type);
    getsockopt(socket, SOL_SOCKET, SO_TYPE, reinterpret_cast<char *>(&type), &size);
    return type;
}

} // namespace ruvo::test
