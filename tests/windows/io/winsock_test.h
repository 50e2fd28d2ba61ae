#pragma once

#include "common/windows_handles.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <utility>

namespace ruvo::test {

/// A test that uses sockets.
class WinsockTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        WSADATA data;
        ASSERT_EQ(WSAStartup(MAKEWORD(2, 2), &data), 0);
    }
    static void TearDownTestSuite() { WSACleanup(); }
};

/// 127.0.0.1 and a port in host order.
sockaddr_in loopbackAddress(std::uint16_t port);
/// Where a socket is bound.
sockaddr_in boundTo(SOCKET socket);
std::uint16_t portOf(SOCKET socket);

/// Listens on 127.0.0.1 and a port of the system's choice.
Socket listeningSocket();
/// A port of 127.0.0.1 where nobody listens.
std::uint16_t closedPort();
/// Both ends of a stream, overlapped. Check them first.
std::pair<Socket, Socket> connectedSockets();

} // namespace ruvo::test
