#pragma once

// Owners of what Wintun hands out. Its closing functions come out of a library that is loaded at run time, so an
// owner carries the one that it needs, and has to go before the library does.

#include "common/windows_handles.h"
#include "netcfg/wintun_api.h"

#include <memory>

namespace ruvo {

/// Closes with the function that it was given; the thread's last error stays.
template<typename T>
struct WintunCloser
{
    void(WINAPI *close)(T *) = nullptr;

    void operator()(T *handle) const
    {
        const LastErrorKeeper keeper;
        close(handle);
    }
};

/// Closing it takes away an adapter that this process created, and leaves one that it opened.
using WintunAdapterOwner = std::unique_ptr<wintun::Adapter, WintunCloser<wintun::Adapter>>;
/// Ends the session: to go before its adapter does, and once nobody reads or sends any more.
using WintunSessionOwner = std::unique_ptr<wintun::Session, WintunCloser<wintun::Session>>;

} // namespace ruvo
