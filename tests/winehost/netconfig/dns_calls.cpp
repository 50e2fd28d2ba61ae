// DNS servers of an interface: recorded where Windows records them, in the registry under the interface's GUID.

#include "library/guid_text.h"
#include "library/text.h"
#include "netconfig/interface_id.h"
#include "netconfig/network_call.h"

#include "common/windows_handles.h"

#include <algorithm>

namespace {

using namespace ruvo::winehost;

// As netioapi.h of newer systems has them; this compiler's does not.
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
constexpr ULONG64 ipv6Setting = 1;
constexpr ULONG64 nameServerSetting = 2;

/// Addresses with commas or blanks between them.
bool areAddresses(std::wstring_view list, int family)
{
    std::wstring words(list);
    std::ranges::replace(words, L',', L' ');
    for (const auto &line : wordsOfLines(toUtf8(words))) {
        IN6_ADDR address;
        const auto isAddress = [&](const std::string &word) {
            return inet_pton(family, word.c_str(), &address) == 1;
        };
        if (!std::ranges::all_of(line, isAddress))
            return false;
    }
    return true;
}

DWORD write(const GUID &guid, const wchar_t *service, std::wstring_view servers)
{
    const std::wstring path = std::wstring(L"SYSTEM\\CurrentControlSet\\Services\\") + service
                              + L"\\Parameters\\Interfaces\\" + toWide(guidText(guid));
    ruvo::RegistryKey key;
    const LSTATUS opened =
        RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr, key.out(), nullptr);
    if (opened != ERROR_SUCCESS)
        return static_cast<DWORD>(opened);
    const std::wstring text(servers);
    const auto size = static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t));
    return static_cast<DWORD>(
        RegSetValueExW(key.get(), L"NameServer", 0, REG_SZ, reinterpret_cast<const BYTE *>(text.c_str()), size));
}

DWORD set(NetworkCall &call, const GUID &guid, const DnsInterfaceSettings *settings)
{
    call.add("guid", std::string_view(guidText(guid)));
    if (!settings)
        return ERROR_INVALID_PARAMETER;
    call.add("version", settings->version).add("flags", settings->flags).add("name-server", settings->nameServer);
    if (settings->version == 0 || settings->version > 3)
        return ERROR_INVALID_PARAMETER;
    if (!findLink(guid))
        return ERROR_FILE_NOT_FOUND;
    // The other settings would have to land somewhere too.
    if ((settings->flags & ~ipv6Setting) != nameServerSetting)
        return ERROR_NOT_SUPPORTED;
    const std::wstring_view servers = settings->nameServer ? settings->nameServer : L"";
    const bool isIpv6 = (settings->flags & ipv6Setting) != 0;
    if (!areAddresses(servers, isIpv6 ? AF_INET6 : AF_INET))
        return ERROR_INVALID_PARAMETER;
    return write(guid, isIpv6 ? L"Tcpip6" : L"Tcpip", servers);
}

} // namespace

extern "C" DWORD WINAPI SetInterfaceDnsSettings(GUID guid, const DnsInterfaceSettings *settings)
{
    NetworkCall call("SetInterfaceDnsSettings");
    return call.finish([&] { return set(call, guid, settings); });
}
