// The functions of wintun.dll that deal with adapters and the driver.

#include "library/guid_text.h"
#include "library/planned_call.h"
#include "library/text.h"
#include "netconfig/interface_id.h"
#include "wintun/handles.h"
#include "wintun/logger.h"
#include "wintun/misuse.h"

#include <rpc.h>

namespace {

using namespace ruvo::winehost;

constexpr DWORD driverVersion = 0x0000000E; // 0.14

std::wstring inQuotes(LPCWSTR text)
{
    return text ? L"\"" + std::wstring(text) + L"\"" : L"(none)";
}

bool isUsableName(LPCWSTR name)
{
    return name && *name && std::wstring_view(name).size() < WINTUN_MAX_ADAPTER_NAME;
}

GUID randomGuid()
{
    GUID guid{};
    UuidCreate(&guid);
    return guid;
}

/// The handle of what was made, or null with the last error set; both written down.
WINTUN_ADAPTER_HANDLE finish(PlannedCall &call, std::expected<std::unique_ptr<Adapter>, DWORD> adapter,
                             const std::wstring &what)
{
    if (!adapter) {
        logLine(WINTUN_LOG_ERR, L"Failed to " + what + L": error " + std::to_wstring(adapter.error()));
        call.addError(adapter.error());
        SetLastError(adapter.error());
        return nullptr;
    }
    const Link &link = (*adapter)->link();
    call.add("interface", std::string_view(link.name)).add("index", link.index).add("luid", luidOf(link).Value);
    call.add("guid", std::string_view(guidText((*adapter)->identity().guid)));
    call.addError(NO_ERROR);
    logLine(WINTUN_LOG_INFO, L"Done: " + what);
    return Handles::instance().add(*std::move(adapter));
}

} // namespace

extern "C" {

WINTUN_ADAPTER_HANDLE WINAPI WintunCreateAdapter(LPCWSTR name, LPCWSTR tunnelType, const GUID *requestedGuid)
{
    PlannedCall call("WintunCreateAdapter");
    call.add("name", name).add("tunnel-type", tunnelType);
    if (requestedGuid)
        call.add("requested-guid", std::string_view(guidText(*requestedGuid)));
    const std::wstring what = L"create adapter " + inQuotes(name);
    if (call.fault())
        return finish(call, std::unexpected(*call.fault()), what);
    if (!isUsableName(name) || !isUsableName(tunnelType))
        return finish(call, std::unexpected<DWORD>(ERROR_INVALID_PARAMETER), what);
    const GUID guid = requestedGuid ? *requestedGuid : randomGuid();
    return finish(call, Adapter::create({name, tunnelType, guid}), what);
}

WINTUN_ADAPTER_HANDLE WINAPI WintunOpenAdapter(LPCWSTR name)
{
    PlannedCall call("WintunOpenAdapter");
    call.add("name", name);
    const std::wstring what = L"open adapter " + inQuotes(name);
    if (call.fault())
        return finish(call, std::unexpected(*call.fault()), what);
    if (!isUsableName(name))
        return finish(call, std::unexpected<DWORD>(ERROR_INVALID_PARAMETER), what);
    return finish(call, Adapter::open(name), what);
}

void WINAPI WintunCloseAdapter(WINTUN_ADAPTER_HANDLE handle)
{
    const ruvo::LastErrorKeeper keeper;
    JournalEntry entry("WintunCloseAdapter");
    if (!handle)
        return;
    const std::unique_ptr<Adapter> adapter = Handles::instance().take(handle);
    if (!adapter)
        return noteMisuse("WintunCloseAdapter", "no open adapter");
    entry.add("interface", std::string_view(adapter->link().name)).add("removed", adapter->wasCreated());
}

void WINAPI WintunGetAdapterLUID(WINTUN_ADAPTER_HANDLE handle, NET_LUID *luid)
{
    JournalEntry entry("WintunGetAdapterLUID");
    const Adapter *adapter = Handles::instance().find(handle);
    if (!adapter)
        return noteMisuse("WintunGetAdapterLUID", "no open adapter");
    *luid = luidOf(adapter->link());
    entry.add("luid", luid->Value);
}

// The driver counts as loaded while an adapter exists.
DWORD WINAPI WintunGetRunningDriverVersion()
{
    PlannedCall call("WintunGetRunningDriverVersion");
    const DWORD error = call.finish([] { return listWintunAdapters().empty() ? ERROR_FILE_NOT_FOUND : NO_ERROR; });
    SetLastError(error);
    return error == NO_ERROR ? driverVersion : 0;
}

BOOL WINAPI WintunDeleteDriver()
{
    PlannedCall call("WintunDeleteDriver");
    const DWORD error = call.finish([] { return listWintunAdapters().empty() ? NO_ERROR : ERROR_DEVICE_IN_USE; });
    SetLastError(error);
    return error == NO_ERROR;
}

void WINAPI WintunSetLogger(WINTUN_LOGGER_CALLBACK logger)
{
    JournalEntry("WintunSetLogger").add("set", logger != nullptr);
    setLogger(logger);
}

} // extern "C"
