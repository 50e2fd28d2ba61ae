#pragma once

#include "firewall/recorded_object.h"

namespace ruvo::winehost {

/// The way to the rules; the settings of the firewall itself are not done here.
class FirewallPolicy final : public RecordedObject<INetFwPolicy2>
{
    using Profile = NET_FW_PROFILE_TYPE2;

public:
    FirewallPolicy();

    HRESULT STDMETHODCALLTYPE get_Rules(INetFwRules **rules) override;

    HRESULT STDMETHODCALLTYPE get_CurrentProfileTypes(LONG *) override { return refuse("get_CurrentProfileTypes"); }
    HRESULT STDMETHODCALLTYPE get_FirewallEnabled(Profile, VARIANT_BOOL *) override
    {
        return refuse("get_FirewallEnabled");
    }
    HRESULT STDMETHODCALLTYPE put_FirewallEnabled(Profile, VARIANT_BOOL) override
    {
        return refuse("put_FirewallEnabled");
    }
    HRESULT STDMETHODCALLTYPE get_ExcludedInterfaces(Profile, VARIANT *) override
    {
        return refuse("get_ExcludedInterfaces");
    }
    HRESULT STDMETHODCALLTYPE put_ExcludedInterfaces(Profile, VARIANT) override
    {
        return refuse("put_ExcludedInterfaces");
    }
    HRESULT STDMETHODCALLTYPE get_BlockAllInboundTraffic(Profile, VARIANT_BOOL *) override
    {
        return refuse("get_BlockAllInboundTraffic");
    }
    HRESULT STDMETHODCALLTYPE put_BlockAllInboundTraffic(Profile, VARIANT_BOOL) override
    {
        return refuse("put_BlockAllInboundTraffic");
    }
    HRESULT STDMETHODCALLTYPE get_NotificationsDisabled(Profile, VARIANT_BOOL *) override
    {
        return refuse("get_NotificationsDisabled");
    }
    HRESULT STDMETHODCALLTYPE put_NotificationsDisabled(Profile, VARIANT_BOOL) override
    {
        return refuse("put_NotificationsDisabled");
    }
    HRESULT STDMETHODCALLTYPE get_UnicastResponsesToMulticastBroadcastDisabled(Profile, VARIANT_BOOL *) override
    {
        return refuse("get_UnicastResponsesToMulticastBroadcastDisabled");
    }
    HRESULT STDMETHODCALLTYPE put_UnicastResponsesToMulticastBroadcastDisabled(Profile, VARIANT_BOOL) override
    {
        return refuse("put_UnicastResponsesToMulticastBroadcastDisabled");
    }
    HRESULT STDMETHODCALLTYPE get_ServiceRestriction(INetFwServiceRestriction **) override
    {
        return refuse("get_ServiceRestriction");
    }
    HRESULT STDMETHODCALLTYPE EnableRuleGroup(LONG, BSTR, VARIANT_BOOL) override { return refuse("EnableRuleGroup"); }
    HRESULT STDMETHODCALLTYPE IsRuleGroupEnabled(LONG, BSTR, VARIANT_BOOL *) override
    {
        return refuse("IsRuleGroupEnabled");
    }
    HRESULT STDMETHODCALLTYPE RestoreLocalFirewallDefaults() override
    {
        return refuse("RestoreLocalFirewallDefaults");
    }
    HRESULT STDMETHODCALLTYPE get_DefaultInboundAction(Profile, NET_FW_ACTION *) override
    {
        return refuse("get_DefaultInboundAction");
    }
    HRESULT STDMETHODCALLTYPE put_DefaultInboundAction(Profile, NET_FW_ACTION) override
    {
        return refuse("put_DefaultInboundAction");
    }
    HRESULT STDMETHODCALLTYPE get_DefaultOutboundAction(Profile, NET_FW_ACTION *) override
    {
        return refuse("get_DefaultOutboundAction");
    }
    HRESULT STDMETHODCALLTYPE put_DefaultOutboundAction(Profile, NET_FW_ACTION) override
    {
        return refuse("put_DefaultOutboundAction");
    }
    HRESULT STDMETHODCALLTYPE get_IsRuleGroupCurrentlyEnabled(BSTR, VARIANT_BOOL *) override
    {
        return refuse("get_IsRuleGroupCurrentlyEnabled");
    }
    HRESULT STDMETHODCALLTYPE get_LocalPolicyModifyState(NET_FW_MODIFY_STATE *) override
    {
        return refuse("get_LocalPolicyModifyState");
    }
};

} // namespace ruvo::winehost
