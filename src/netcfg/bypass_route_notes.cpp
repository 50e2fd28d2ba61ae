#include "netcfg/bypass_route_notes.h"

#include "common/ipv4.h"
#include "common/log_category.h"
#include "common/windows_handles.h"

#include <QStringList>

#include <optional>
#include <utility>

namespace ruvo {

namespace {

constexpr wchar_t keyName[] = L"BypassRoutes";
/// Windows' limit for the name of a value, with its terminator.
constexpr std::size_t longestName = 16384;

/// "8.8.8.8 192.0.2.1 12": destination, next hop, index of the interface.
std::wstring nameOf(const BypassRoute &route)
{
    const QStringList words{formatIpv4(route.destination), formatIpv4(route.nextHop),
                            QString::number(route.interfaceIndex)};
    return words.join(' ').toStdWString();
}

std::optional<BypassRoute> routeOf(const std::wstring &name)
{
    const QStringList words = QString::fromStdWString(name).split(' ');
    if (words.size() != 3)
        return std::nullopt;
    const BypassRoute route{parseIpv4(words[0]), parseIpv4(words[1]), words[2].toUInt()};
    // What cannot be read is 0, and then the name is another one.
    return route.destination != 0 && nameOf(route) == name ? std::optional(route) : std::nullopt;
}

std::vector<std::wstring> namesIn(HKEY key)
{
    std::vector<std::wstring> names;
    std::wstring name(longestName, L'\0');
    for (DWORD index = 0;; ++index) {
        auto size = static_cast<DWORD>(name.size());
        if (RegEnumValueW(key, index, name.data(), &size, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
            return names;
        names.emplace_back(name.data(), size);
    }
}

} // namespace

BypassRouteNotes::BypassRouteNotes(std::wstring serviceKey) : m_serviceKey(std::move(serviceKey)) {}

// The service's key is never made: a program that runs without a service would leave half of one behind.
void BypassRouteNotes::add(const BypassRoute &route) const
{
    RegistryKey service;
    RegistryKey key;
    LSTATUS error = RegOpenKeyExW(HKEY_LOCAL_MACHINE, m_serviceKey.c_str(), 0, KEY_CREATE_SUB_KEY, service.out());
    if (error == ERROR_SUCCESS) {
        error = RegCreateKeyExW(service.get(), keyName, 0, nullptr, REG_OPTION_VOLATILE, KEY_SET_VALUE, nullptr,
                                key.out(), nullptr);
    }
    if (error == ERROR_SUCCESS)
        error = RegSetValueExW(key.get(), nameOf(route).c_str(), 0, REG_NONE, nullptr, 0);
    if (error != ERROR_SUCCESS)
        qCDebug(lcRuvod) << "Bypass route is not noted:" << formatIpv4(route.destination) << "error:" << error;
}

void BypassRouteNotes::remove(const BypassRoute &route) const
{
    RegistryKey key;
    const std::wstring path = m_serviceKey + L'\\' + keyName;
    LSTATUS error = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_SET_VALUE, key.out());
    if (error == ERROR_SUCCESS)
        error = RegDeleteValueW(key.get(), nameOf(route).c_str());
    if (error != ERROR_SUCCESS && error != ERROR_FILE_NOT_FOUND) {
        qCDebug(lcRuvod) << "Note of a bypass route stays:" << formatIpv4(route.destination) << "error:" << error;
    }
}

std::vector<BypassRoute> BypassRouteNotes::routes() const
{
    std::vector<BypassRoute> found;
    RegistryKey key;
    const std::wstring path = m_serviceKey + L'\\' + keyName;
    const LSTATUS error =
        RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_QUERY_VALUE | KEY_SET_VALUE, key.out());
    if (error != ERROR_SUCCESS) {
        if (error != ERROR_FILE_NOT_FOUND)
            qCDebug(lcRuvod) << "Notes of bypass routes cannot be read, error:" << error;
        return found;
    }
    // All of them first: with one deleted, the others would move up.
    for (const std::wstring &name : namesIn(key.get())) {
        if (const std::optional<BypassRoute> route = routeOf(name))
            found.push_back(*route);
        else
            RegDeleteValueW(key.get(), name.c_str());
    }
    return found;
}

} // namespace ruvo
