#pragma once

#include "common/winsock_headers.h"

#include <QString>

#include <cstddef>
#include <memory>

namespace ruvo {

/// The machine's network adapters as they were at one moment. GetAdaptersAddresses, all families, with prefixes.
class NetworkAdapters
{
public:
    /// What asking failed at.
    enum class Failure { None, Size, List };

    NetworkAdapters();

    Failure failure() const { return m_failure; }
    /// What the failing call returned.
    ULONG error() const { return m_error; }

    /// The first adapter of exactly this friendly name (case-sensitive); null if there is none, or asking failed.
    /// Valid as long as this object.
    const IP_ADAPTER_ADDRESSES *findByName(const QString &friendlyName) const;

private:
    std::unique_ptr<std::byte[]> m_buffer;
    const IP_ADAPTER_ADDRESSES *m_first = nullptr;
    Failure m_failure = Failure::None;
    ULONG m_error = NO_ERROR;
};

} // namespace ruvo
