#pragma once

#include "firewall/recorded_object.h"
#include "firewall/refusing_interfaces.h"

namespace ruvo::winehost {

/// The collection of the machine's rules. Every object is a view of the same file.
class FirewallRules final : public RefusingRules<RecordedObject<INetFwRules>>
{
public:
    FirewallRules();

    HRESULT STDMETHODCALLTYPE get_Count(LONG *count) override;
    HRESULT STDMETHODCALLTYPE Add(INetFwRule *rule) override;
    HRESULT STDMETHODCALLTYPE Remove(BSTR name) override;
    HRESULT STDMETHODCALLTYPE Item(BSTR name, INetFwRule **rule) override;
};

} // namespace ruvo::winehost
