#pragma once

#include "nat/tcp_nat_table.h"

#include <gtest/gtest.h>

#include <chrono>

namespace ruvo {

inline constexpr std::uint32_t client = 0x0A060701;
inline constexpr std::uint32_t server = 0x5DB8D822;
inline constexpr std::uint32_t otherServer = 0x01010101;
inline constexpr std::chrono::seconds second{1};
inline constexpr std::chrono::nanoseconds moment{1};
inline constexpr int allPorts = 65535;

/// A table whose time passes when the test says so.
class TcpNatTableTest : public ::testing::Test
{
protected:
    /// The SYN of a connection from `port` to the server's port 443.
    std::uint16_t open(int port, std::uint32_t destination = server)
    {
        return m_table.allocateNatPort(client, static_cast<std::uint16_t>(port), destination, 443);
    }
    std::uint16_t find(int port, std::uint32_t destination = server) const
    {
        return m_table.findNatPort({{client, static_cast<std::uint16_t>(port)}, {destination, 443}});
    }
    /// Opens and accepts a connection, so that it lasts.
    TcpNatSessionPtr accepted(int port, std::uint32_t destination = server)
    {
        return m_table.accept(open(port, destination));
    }
    /// Takes every port that there is, from client ports 1 to 65535.
    void fill()
    {
        for (int port = 1; port <= allPorts; ++port)
            ASSERT_NE(open(port), 0) << port;
    }
    void pass(std::chrono::nanoseconds time) { m_now += time; }

    SteadyTime m_now{1'000 * second};
    TcpNatTable m_table{[this] { return m_now; }};
};

} // namespace ruvo
