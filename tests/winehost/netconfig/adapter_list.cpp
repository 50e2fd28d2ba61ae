// The list of adapters: Wine's own, in which Wintun adapters get what Windows would show of them, and behind it those
// that only a test knows of.

#include "library/guid_text.h"
#include "netconfig/extra_adapters.h"
#include "netconfig/interface_id.h"
#include "wintun/adapter_identity.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

namespace {

using namespace ruvo::winehost;

using GetAdaptersAddressesFunction = decltype(&GetAdaptersAddresses);

/// Wine's own function, in the copy of its DLL that lies beside this one.
GetAdaptersAddressesFunction wineFunction()
{
    static const auto function = std::bit_cast<GetAdaptersAddressesFunction>(
        GetProcAddress(LoadLibraryW(L"iphlpapi_wine.dll"), "GetAdaptersAddresses"));
    return function;
}

constexpr DWORD firstExtraIndex = 1000; // far from Linux's own
constexpr std::size_t alignment = 8;

std::size_t aligned(std::size_t size)
{
    return (size + alignment - 1) & ~(alignment - 1);
}

std::size_t wideSize(const std::wstring &text)
{
    return aligned((text.size() + 1) * sizeof(wchar_t));
}

/// Texts and adapters one behind the other in the part of the caller's buffer that Wine's list does not get.
class Tail
{
public:
    explicit Tail(BYTE *start) : m_next(start) {}

    static std::size_t sizeFor(const ShownAdapter &adapter)
    {
        return wideSize(adapter.friendlyName) + wideSize(adapter.description) + guidSize + wideSize(L"");
    }
    static std::size_t sizeForNew(const ShownAdapter &adapter)
    {
        return aligned(sizeof(IP_ADAPTER_ADDRESSES)) + sizeFor(adapter);
    }

    void show(IP_ADAPTER_ADDRESSES &entry, const ShownAdapter &adapter)
    {
        entry.AdapterName = reinterpret_cast<PCHAR>(place(guidText(adapter.guid).c_str(), 39, guidSize));
        entry.FriendlyName = wide(adapter.friendlyName);
        entry.Description = wide(adapter.description);
        entry.OperStatus = adapter.status;
        if (!entry.DnsSuffix)
            entry.DnsSuffix = wide(L"");
    }

    IP_ADAPTER_ADDRESSES &addNew()
    {
        const IP_ADAPTER_ADDRESSES empty{};
        return *reinterpret_cast<IP_ADAPTER_ADDRESSES *>(place(&empty, sizeof empty, aligned(sizeof empty)));
    }

private:
    static constexpr std::size_t guidSize = 40;

    BYTE *place(const void *data, std::size_t size, std::size_t room)
    {
        std::memcpy(m_next, data, size);
        return std::exchange(m_next, m_next + room);
    }
    PWCHAR wide(const std::wstring &text)
    {
        return reinterpret_cast<PWCHAR>(place(text.c_str(), (text.size() + 1) * sizeof(wchar_t), wideSize(text)));
    }

    BYTE *m_next;
};

struct ShownTun
{
    Link link;
    ShownAdapter shown;
};

std::vector<ShownTun> shownTuns()
{
    std::vector<ShownTun> tuns;
    for (const ListedAdapter &listed : listWintunAdapters()) {
        tuns.push_back({listed.link,
                        {listed.identity.guid, listed.identity.name, listed.identity.tunnelType + L" Tunnel",
                         listed.link.isConnected() ? IfOperStatusUp : IfOperStatusDown}});
    }
    return tuns;
}

/// Wine goes on listing interfaces that have been removed.
void removeStale(IP_ADAPTER_ADDRESSES *list)
{
    const std::vector<Link> links = listLinks();
    const auto isThere = [&](const IP_ADAPTER_ADDRESSES &entry) {
        return std::ranges::find(links, entry.IfIndex, &Link::index) != links.end();
    };
    // The first is loopback, and stays.
    for (IP_ADAPTER_ADDRESSES *entry = list; entry->Next;) {
        if (isThere(*entry->Next))
            entry = entry->Next;
        else
            entry->Next = entry->Next->Next;
    }
}

struct Query
{
    ULONG family;
    ULONG flags;
    PVOID reserved;
    IP_ADAPTER_ADDRESSES *buffer;
    ULONG *size;
};

void addExtras(Tail &tail, IP_ADAPTER_ADDRESSES *last, const std::vector<ShownAdapter> &extras)
{
    DWORD index = firstExtraIndex;
    for (const ShownAdapter &extra : extras) {
        IP_ADAPTER_ADDRESSES &entry = tail.addNew();
        entry.Length = sizeof entry;
        entry.IfIndex = index++;
        entry.Luid.Info.NetLuidIndex = entry.IfIndex & 0xFFFFFF;
        entry.Luid.Info.IfType = IF_TYPE_PROP_VIRTUAL;
        entry.IfType = IF_TYPE_PROP_VIRTUAL;
        entry.Mtu = 1500;
        tail.show(entry, extra);
        last->Next = &entry;
        last = &entry;
    }
}

DWORD list(NetworkCall &call, const Query &query)
{
    if (!query.size)
        return ERROR_INVALID_PARAMETER;
    const std::vector<ShownTun> tuns = shownTuns();
    const std::vector<ShownAdapter> extras = extraAdapters();
    std::size_t tailSize = 0;
    for (const ShownTun &tun : tuns)
        tailSize += Tail::sizeFor(tun.shown);
    for (const ShownAdapter &extra : extras)
        tailSize += Tail::sizeForNew(extra);

    // Wine's list in front, as large as it may get.
    const ULONG whole = query.buffer ? *query.size : 0;
    ULONG wineSize = whole > tailSize ? static_cast<ULONG>((whole - tailSize) & ~(alignment - 1)) : 0;
    const ULONG room = wineSize;
    const DWORD error =
        wineFunction()(query.family, query.flags, query.reserved, room > 0 ? query.buffer : nullptr, &wineSize);
    *query.size = static_cast<ULONG>(aligned(wineSize) + tailSize);
    if (error != NO_ERROR)
        return error;

    removeStale(query.buffer);
    Tail tail(reinterpret_cast<BYTE *>(query.buffer) + room);
    IP_ADAPTER_ADDRESSES *last = query.buffer;
    int count = static_cast<int>(extras.size());
    for (IP_ADAPTER_ADDRESSES *entry = query.buffer; entry; entry = entry->Next, ++count) {
        last = entry;
        const auto tun =
            std::ranges::find(tuns, entry->IfIndex, [](const ShownTun &candidate) { return candidate.link.index; });
        if (tun == tuns.end())
            continue;
        entry->IfType = IF_TYPE_PROP_VIRTUAL;
        entry->Luid = luidOf(tun->link);
        tail.show(*entry, tun->shown);
    }
    addExtras(tail, last, extras);
    call.add("adapters", count);
    return NO_ERROR;
}

} // namespace

extern "C" ULONG WINAPI GetAdaptersAddresses(ULONG family, ULONG flags, PVOID reserved, PIP_ADAPTER_ADDRESSES buffer,
                                             PULONG size)
{
    NetworkCall call("GetAdaptersAddresses");
    call.add("family", family).add("flags", flags);
    return call.finish([&] { return list(call, {family, flags, reserved, buffer, size}); });
}
