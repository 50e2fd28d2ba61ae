#pragma once

#include "common/winsock_headers.h"

#include <cstddef>
#include <span>
#include <vector>

namespace ruvo {

/// The system's IPv4 routes as they were at one moment, in the system's order. GetIpForwardTable.
class ForwardTable
{
public:
    ForwardTable();

    /// Empty if the system cannot tell. Addresses are in network order.
    std::span<const MIB_IPFORWARDROW> rows() const;

private:
    std::vector<std::byte> m_buffer;
};

} // namespace ruvo
