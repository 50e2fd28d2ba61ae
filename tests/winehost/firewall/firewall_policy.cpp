#include "firewall/firewall_policy.h"

#include "firewall/firewall_rules.h"

namespace ruvo::winehost {

FirewallPolicy::FirewallPolicy() : RefusingPolicy("INetFwPolicy2", IID_INetFwPolicy2) {}

HRESULT FirewallPolicy::get_Rules(INetFwRules **rules)
{
    return call("get_Rules", [&](ComCall &call) {
        if (!rules)
            return E_POINTER;
        auto *made = new FirewallRules;
        call.add("made", made->number());
        *rules = made;
        return S_OK;
    });
}

} // namespace ruvo::winehost
