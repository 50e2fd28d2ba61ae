#pragma once

#include "kernel/links.h"

#include <windows.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ruvo::winehost {

/// What makes a Linux TUN a Wintun adapter: the name that Windows shows, its type and its GUID. All three stand in
/// the interface's alias ("wintun | {GUID} | TYPE | NAME"), so they live as long as the interface does, every process
/// of the namespace sees them, and `ip link` shows them.
struct AdapterIdentity
{
    std::wstring name;
    std::wstring tunnelType;
    GUID guid{};

    /// Nothing for a name or type that an alias cannot hold.
    std::optional<std::string> toAlias() const;
    static std::optional<AdapterIdentity> fromAlias(std::string_view alias);

    /// The name of the Linux interface, which has room for 15 characters: the adapter's own name if it will do, else
    /// its first eight characters and a hash of the whole.
    std::string linuxName() const;
};

struct ListedAdapter
{
    Link link;
    AdapterIdentity identity;
};

/// All Wintun adapters of this namespace.
std::vector<ListedAdapter> listWintunAdapters();

} // namespace ruvo::winehost
