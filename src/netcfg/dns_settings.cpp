#include "netcfg/dns_settings.h"

#include "common/log_category.h"
#include "common/windows_handles.h"

#include <QString>

#include <bit>
#include <optional>

namespace ruvo {

namespace {

// Declared anew: older SDKs lack it, and the function is looked up at run time. DNS_INTERFACE_SETTINGS of netioapi.h.
struct DnsInterfaceSettings
{
    ULONG version;
    ULONG64 flags;
    PWSTR domain;
    PWSTR nameServer;
    PWSTR searchList;
    ULONG registrationEnabled;
    ULONG registerAdapterName;
    ULONG enableLlmnr;
    ULONG queryAdapterName;
    PWSTR profileNameServer;
};
constexpr ULONG settingsVersion1 = 1;    // DNS_INTERFACE_SETTINGS_VERSION1
constexpr ULONG64 nameServerSetting = 2; // DNS_SETTING_NAMESERVER

using SetInterfaceDnsSettingsFunction = DWORD(WINAPI *)(GUID interfaceGuid, const DnsInterfaceSettings *settings);

constexpr wchar_t ipv4Interfaces[] = L"SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Parameters\\Interfaces\\";
constexpr wchar_t ipv6Interfaces[] = L"SYSTEM\\CurrentControlSet\\Services\\Tcpip6\\Parameters\\Interfaces\\";

std::string serverList(const std::string &primary, const std::string &secondary)
{
    return secondary.empty() ? primary : primary + "," + secondary;
}

std::optional<GUID> interfaceGuid(const NET_LUID &luid)
{
    GUID guid{};
    const DWORD error = ConvertInterfaceLuidToGuid(&luid, &guid);
    if (error != NO_ERROR) {
        qCWarning(lcRuvod) << "Failed to convert LUID to GUID:" << error;
        return std::nullopt;
    }
    return guid;
}

std::wstring interfaceKey(const wchar_t *interfaces, const GUID &guid)
{
    wchar_t text[64] = {};
    StringFromGUID2(guid, text, static_cast<int>(std::size(text)));
    return std::wstring(interfaces) + text;
}

void logServers(const char *what, const std::string &primary, const std::string &secondary)
{
    qCDebug(lcRuvod) << what << primary.c_str();
    if (!secondary.empty())
        qCDebug(lcRuvod) << "  Secondary:" << secondary.c_str();
}

/// False if the function is missing or fails: the registry is written then.
bool writeThroughApi(const GUID &guid, const std::string &list)
{
    const auto function = std::bit_cast<SetInterfaceDnsSettingsFunction>(
        GetProcAddress(GetModuleHandleW(L"iphlpapi.dll"), "SetInterfaceDnsSettings"));
    if (!function)
        return false;
    std::wstring servers = QString::fromStdString(list).toStdWString();
    DnsInterfaceSettings settings{};
    settings.version = settingsVersion1;
    settings.flags = nameServerSetting;
    settings.nameServer = servers.data();
    const DWORD error = function(guid, &settings);
    if (error != NO_ERROR) {
        qCWarning(lcRuvod) << "SetInterfaceDnsSettings failed:" << error << ", falling back to registry";
        return false;
    }
    return true;
}

bool writeToRegistry(const std::wstring &path, const std::string &list, const char *openFailure,
                     const char *writeFailure)
{
    RegistryKey key;
    LSTATUS error = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_WRITE, key.out());
    if (error != ERROR_SUCCESS) {
        qCWarning(lcRuvod) << openFailure << error;
        return false;
    }
    error = RegSetValueExA(key.get(), "NameServer", 0, REG_SZ, reinterpret_cast<const BYTE *>(list.c_str()),
                           static_cast<DWORD>(list.size() + 1));
    if (error != ERROR_SUCCESS) {
        qCWarning(lcRuvod) << writeFailure << error;
        return false;
    }
    return true;
}

} // namespace

bool writeDnsServers(const NET_LUID &luid, const std::string &primary, const std::string &secondary)
{
    const std::optional<GUID> guid = interfaceGuid(luid);
    if (!guid)
        return false;
    const std::string list = serverList(primary, secondary);
    if (writeThroughApi(*guid, list)) {
        logServers("DNS servers configured via API:", primary, secondary);
        return true;
    }
    if (!writeToRegistry(interfaceKey(ipv4Interfaces, *guid), list,
                         "Failed to open registry key:", "Failed to set DNS servers in registry:")) {
        return false;
    }
    logServers("DNS servers configured (registry):", primary, secondary);
    return true;
}

bool writeIpv6DnsServers(const NET_LUID &luid, const std::string &primary, const std::string &secondary)
{
    const std::optional<GUID> guid = interfaceGuid(luid);
    if (!guid)
        return false;
    if (!writeToRegistry(interfaceKey(ipv6Interfaces, *guid), serverList(primary, secondary),
                         "Failed to open IPv6 registry key:", "Failed to set IPv6 DNS servers in registry:")) {
        return false;
    }
    logServers("IPv6 DNS servers configured:", primary, secondary);
    return true;
}

} // namespace ruvo
