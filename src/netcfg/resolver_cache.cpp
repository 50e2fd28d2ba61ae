#include "netcfg/resolver_cache.h"

#include "common/log_category.h"
#include "common/windows_handles.h"

#include <bit>

namespace ruvo {

bool flushDnsCache()
{
    using FlushFunction = BOOL(WINAPI *)();
    const Library library(LoadLibraryW(L"dnsapi.dll"));
    const auto flush =
        library ? std::bit_cast<FlushFunction>(GetProcAddress(library.get(), "DnsFlushResolverCache")) : nullptr;
    if (!flush || !flush()) {
        qCWarning(lcRuvod) << "Failed to flush DNS resolver cache";
        return false;
    }
    qCDebug(lcRuvod) << "✓ DNS resolver cache flushed";
    return true;
}

} // namespace ruvo
