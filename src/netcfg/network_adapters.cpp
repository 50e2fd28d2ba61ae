#include "netcfg/network_adapters.h"

#include <string>

namespace ruvo {

namespace {

ULONG queryAdapters(void *buffer, ULONG &size)
{
    return GetAdaptersAddresses(AF_UNSPEC, GAA_FLAG_INCLUDE_PREFIX, nullptr,
                                static_cast<IP_ADAPTER_ADDRESSES *>(buffer), &size);
}

} // namespace

NetworkAdapters::NetworkAdapters()
{
    ULONG size = 0;
    m_error = queryAdapters(nullptr, size);
    if (m_error != ERROR_BUFFER_OVERFLOW) {
        m_failure = Failure::Size;
        return;
    }
    m_buffer = std::make_unique<std::byte[]>(size);
    m_error = queryAdapters(m_buffer.get(), size);
    if (m_error != NO_ERROR) {
        m_failure = Failure::List;
        return;
    }
    m_first = reinterpret_cast<const IP_ADAPTER_ADDRESSES *>(m_buffer.get());
}

const IP_ADAPTER_ADDRESSES *NetworkAdapters::findByName(const QString &friendlyName) const
{
    const std::wstring name = friendlyName.toStdWString();
    for (const IP_ADAPTER_ADDRESSES *adapter = m_first; adapter; adapter = adapter->Next) {
        if (adapter->FriendlyName && name == adapter->FriendlyName)
            return adapter;
    }
    return nullptr;
}

} // namespace ruvo
