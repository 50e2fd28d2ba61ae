#pragma once

#include "kernel/system_call.h"
#include "wintun/adapter_identity.h"

#include <expected>
#include <memory>

namespace ruvo::winehost {

/// An adapter that the program has a handle of. One that was created goes with the handle, or with the process; one
/// that was opened stays. Its interface is up from the start, as Windows lets a program configure an adapter that is
/// not connected; what is sent into it before a session runs is dropped.
class Adapter
{
public:
    /// Or a Windows error.
    static std::expected<std::unique_ptr<Adapter>, DWORD> create(const AdapterIdentity &identity);
    static std::expected<std::unique_ptr<Adapter>, DWORD> open(std::wstring_view name);
    ~Adapter();
    Adapter(const Adapter &) = delete;
    Adapter &operator=(const Adapter &) = delete;

    const Link &link() const { return m_link; }
    const AdapterIdentity &identity() const { return m_identity; }
    bool wasCreated() const { return static_cast<bool>(m_holder); }
    /// The interface as it is now; nothing once it has been removed.
    std::optional<Link> currentLink() const;

private:
    Adapter(Link link, AdapterIdentity identity, Descriptor holder);

    const Link m_link;
    const AdapterIdentity m_identity;
    /// Of a created adapter: a descriptor without packets, whose end (the process's at the latest) is the adapter's.
    const Descriptor m_holder;
};

} // namespace ruvo::winehost
