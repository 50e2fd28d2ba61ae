// Index, LUID and GUID of an interface into each other. What fails sets its result to zero, as Windows does.

#include "library/guid_text.h"
#include "netconfig/interface_id.h"
#include "netconfig/network_call.h"

namespace {

using namespace ruvo::winehost;

/// `convert` is called with the interface; a null pointer for the result, or no interface, is an error.
template<typename Result, typename Find, typename Convert>
DWORD finish(NetworkCall &call, Result *result, Find find, Convert convert)
{
    return call.finish([&]() -> DWORD {
        if (!result)
            return ERROR_INVALID_PARAMETER;
        *result = {};
        const std::optional<Link> link = find();
        if (!link)
            return ERROR_FILE_NOT_FOUND;
        *result = convert(*link);
        return NO_ERROR;
    });
}

} // namespace

extern "C" {

NETIO_STATUS NETIOAPI_API_ ConvertInterfaceLuidToIndex(const NET_LUID *luid, PNET_IFINDEX index)
{
    NetworkCall call("ConvertInterfaceLuidToIndex");
    return finish(
        call, luid ? index : nullptr, [&] { return call.link(*luid, 0); },
        [](const Link &link) -> NET_IFINDEX { return link.index; });
}

NETIO_STATUS NETIOAPI_API_ ConvertInterfaceIndexToLuid(NET_IFINDEX index, PNET_LUID luid)
{
    NetworkCall call("ConvertInterfaceIndexToLuid");
    return finish(
        call, luid, [&] { return call.link(NET_LUID{}, index); }, luidOf);
}

NETIO_STATUS NETIOAPI_API_ ConvertInterfaceLuidToGuid(const NET_LUID *luid, GUID *guid)
{
    NetworkCall call("ConvertInterfaceLuidToGuid");
    return finish(
        call, luid ? guid : nullptr, [&] { return call.link(*luid, 0); }, guidOf);
}

NETIO_STATUS NETIOAPI_API_ ConvertInterfaceGuidToLuid(const GUID *guid, PNET_LUID luid)
{
    NetworkCall call("ConvertInterfaceGuidToLuid");
    if (guid)
        call.add("guid", std::string_view(guidText(*guid)));
    return finish(
        call, guid ? luid : nullptr, [&] { return findLink(*guid); }, luidOf);
}

} // extern "C"
