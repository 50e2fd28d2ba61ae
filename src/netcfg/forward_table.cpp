#include "netcfg/forward_table.h"

namespace ruvo {

namespace {

// Routes appear between the call that asks for the size and the one that fills the buffer, several at once while an
// interface comes up. Without room for them there would seem to be no default route.
constexpr ULONG rowsInBetween = 64;

} // namespace

ForwardTable::ForwardTable()
{
    ULONG size = 0;
    if (GetIpForwardTable(nullptr, &size, FALSE) != ERROR_INSUFFICIENT_BUFFER)
        return;
    size += rowsInBetween * sizeof(MIB_IPFORWARDROW);
    m_buffer.resize(size);
    if (GetIpForwardTable(reinterpret_cast<MIB_IPFORWARDTABLE *>(m_buffer.data()), &size, FALSE) != NO_ERROR)
        m_buffer.clear();
}

std::span<const MIB_IPFORWARDROW> ForwardTable::rows() const
{
    if (m_buffer.empty())
        return {};
    const auto *table = reinterpret_cast<const MIB_IPFORWARDTABLE *>(m_buffer.data());
    return {table->table, table->dwNumEntries};
}

} // namespace ruvo
