#pragma once

#include "firewall/recorded_object.h"
#include "firewall/refusing_interfaces.h"

namespace ruvo::winehost {

/// The way to the rules; the settings of the firewall itself are not done here.
class FirewallPolicy final : public RefusingPolicy<RecordedObject<INetFwPolicy2>>
{
public:
    FirewallPolicy();

    HRESULT STDMETHODCALLTYPE get_Rules(INetFwRules **rules) override;
};

} // namespace ruvo::winehost
