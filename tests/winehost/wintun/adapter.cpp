#include "wintun/adapter.h"

#include "common/windows_handles.h"
#include "kernel/tun_device.h"
#include "library/guid_text.h"
#include "library/text.h"

#include <algorithm>

namespace ruvo::winehost {

namespace {

constexpr std::uint32_t initialMtu = 65535; // an adapter's, until somebody sets another

bool isSameName(std::wstring_view one, std::wstring_view other)
{
    return CompareStringOrdinal(one.data(), static_cast<int>(one.size()), other.data(),
                                static_cast<int>(other.size()), TRUE)
           == CSTR_EQUAL;
}

DWORD windowsError(int linuxError)
{
    switch (linuxError) {
    case linux_error::accessDenied: return ERROR_ACCESS_DENIED;
    case linux_error::busy:
    case linux_error::exists: return ERROR_ALREADY_EXISTS;
    case linux_error::notFound:
    case linux_error::noDevice: return ERROR_FILE_NOT_FOUND; // no /dev/net/tun: the driver is missing
    default: return ERROR_GEN_FAILURE;
    }
}

/// Windows' IP stack keeps the settings of an interface there; they stay when the adapter goes.
void makeInterfaceKeys(const GUID &guid)
{
    for (const wchar_t *service : {L"Tcpip", L"Tcpip6"}) {
        const std::wstring path = std::wstring(L"SYSTEM\\CurrentControlSet\\Services\\") + service
                                  + L"\\Parameters\\Interfaces\\" + toWide(guidText(guid));
        RegistryKey key;
        RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, key.out(), nullptr);
    }
}

std::optional<Link> linkByName(std::string_view name)
{
    for (Link &link : listLinks()) {
        if (link.name == name)
            return std::move(link);
    }
    return std::nullopt;
}

} // namespace

Adapter::Adapter(Link link, AdapterIdentity identity, Descriptor holder)
    : m_link(std::move(link)), m_identity(std::move(identity)), m_holder(std::move(holder))
{}

Adapter::~Adapter()
{
    // Sessions, of other processes too, hold descriptors that would keep it.
    if (wasCreated())
        deleteLink(m_link.index);
}

std::expected<std::unique_ptr<Adapter>, DWORD> Adapter::create(const AdapterIdentity &identity)
{
    const auto alias = identity.toAlias();
    if (!alias)
        return std::unexpected<DWORD>(ERROR_INVALID_NAME);
    const auto isTaken = [&](const ListedAdapter &other) {
        return isSameName(other.identity.name, identity.name) || IsEqualGUID(other.identity.guid, identity.guid);
    };
    if (std::ranges::any_of(listWintunAdapters(), isTaken))
        return std::unexpected<DWORD>(ERROR_ALREADY_EXISTS);

    const std::string name = identity.linuxName();
    auto holder = openTun(name, TunInterface::isNew);
    if (!holder)
        return std::unexpected(windowsError(holder.error()));
    int error = detachQueue(*holder);
    auto link = linkByName(name);
    if (error == 0 && link)
        error = changeLink(link->index, {.alias = *alias, .mtu = initialMtu, .bringUp = true});
    if (error != 0 || !link)
        return std::unexpected(windowsError(error));
    link->alias = *alias; // which makes it a Wintun adapter
    makeInterfaceKeys(identity.guid);
    return std::unique_ptr<Adapter>(new Adapter(*link, identity, *std::move(holder)));
}

std::expected<std::unique_ptr<Adapter>, DWORD> Adapter::open(std::wstring_view name)
{
    for (ListedAdapter &listed : listWintunAdapters()) {
        if (isSameName(listed.identity.name, name))
            return std::unique_ptr<Adapter>(new Adapter(std::move(listed.link), std::move(listed.identity), {}));
    }
    return std::unexpected<DWORD>(ERROR_NOT_FOUND);
}

std::optional<Link> Adapter::currentLink() const
{
    return linkByIndex(m_link.index);
}

} // namespace ruvo::winehost
