// The program's way into COM. Apartments are Wine's own; of the classes the Windows Firewall's are done here.

#include "firewall/firewall_policy.h"
#include "firewall/firewall_rule.h"
#include "library/substitutes.h"

#include <atomic>

namespace ruvo::winehost {

namespace {

std::atomic<unsigned long> s_lastObject = 0;

bool isInApartment()
{
    APTTYPE type{};
    APTTYPEQUALIFIER qualifier{};
    return SUCCEEDED(CoGetApartmentType(&type, &qualifier));
}

/// Hands over the one reference that a new object has.
template<typename Object>
HRESULT make(ComCall &call, REFIID wanted, LPVOID *result)
{
    auto *object = new Object;
    call.add("object", object->number());
    const HRESULT found = object->QueryInterface(wanted, result);
    object->Release();
    return found;
}

} // namespace

unsigned long nextObjectNumber()
{
    return ++s_lastObject;
}

HRESULT WINAPI coInitializeEx(LPVOID reserved, DWORD model)
{
    ComCall call("CoInitializeEx");
    call.add("model", (model & COINIT_APARTMENTTHREADED) != 0 ? "apartment" : "multithreaded").add("flags", model);
    return call.finish([&] { return CoInitializeEx(reserved, model); });
}

void WINAPI coUninitialize()
{
    const JournalEntry entry("CoUninitialize");
    CoUninitialize();
}

HRESULT WINAPI coCreateInstance(REFCLSID classId, LPUNKNOWN outer, DWORD context, REFIID interfaceId, LPVOID *object)
{
    const bool isPolicy = IsEqualGUID(classId, CLSID_NetFwPolicy2);
    if (!isPolicy && !IsEqualGUID(classId, CLSID_NetFwRule))
        return CoCreateInstance(classId, outer, context, interfaceId, object);
    ComCall call("CoCreateInstance");
    call.add("class", isPolicy ? "NetFwPolicy2" : "NetFwRule").add("context", context);
    if (object)
        *object = nullptr;
    return call.finish([&] {
        if (!object)
            return E_POINTER;
        if (!isInApartment())
            return CO_E_NOTINITIALIZED;
        if (outer)
            return CLASS_E_NOAGGREGATION;
        if ((context & CLSCTX_INPROC_SERVER) == 0)
            return REGDB_E_CLASSNOTREG;
        return isPolicy ? make<FirewallPolicy>(call, interfaceId, object)
                        : make<FirewallRule>(call, interfaceId, object);
    });
}

} // namespace ruvo::winehost
