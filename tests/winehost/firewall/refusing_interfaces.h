#pragma once

// The COM interfaces of the Windows Firewall with all that nobody needs. `Base` implements the interface's own base,
// IDispatch, and says with `HRESULT refuse(const char *function)` what becomes of a call that is not overridden.

#include <netfw.h>

namespace ruvo::winehost {

template<typename Base>
class RefusingPolicy : public Base
{
public:
    using Base::Base;

    using Profile = NET_FW_PROFILE_TYPE2;
    HRESULT STDMETHODCALLTYPE get_CurrentProfileTypes(LONG *) override
    {
        return this->refuse("get_CurrentProfileTypes");
    }
    HRESULT STDMETHODCALLTYPE get_FirewallEnabled(Profile, VARIANT_BOOL *) override
    {
        return this->refuse("get_FirewallEnabled");
    }
    HRESULT STDMETHODCALLTYPE put_FirewallEnabled(Profile, VARIANT_BOOL) override
    {
        return this->refuse("put_FirewallEnabled");
    }
    HRESULT STDMETHODCALLTYPE get_ExcludedInterfaces(Profile, VARIANT *) override
    {
        return this->refuse("get_ExcludedInterfaces");
    }
    HRESULT STDMETHODCALLTYPE put_ExcludedInterfaces(Profile, VARIANT) override
    {
        return this->refuse("put_ExcludedInterfaces");
    }
    HRESULT STDMETHODCALLTYPE get_BlockAllInboundTraffic(Profile, VARIANT_BOOL *) override
    {
        return this->refuse("get_BlockAllInboundTraffic");
    }
    HRESULT STDMETHODCALLTYPE put_BlockAllInboundTraffic(Profile, VARIANT_BOOL) override
    {
        return this->refuse("put_BlockAllInboundTraffic");
    }
    HRESULT STDMETHODCALLTYPE get_NotificationsDisabled(Profile, VARIANT_BOOL *) override
    {
        return this->refuse("get_NotificationsDisabled");
    }
    HRESULT STDMETHODCALLTYPE put_NotificationsDisabled(Profile, VARIANT_BOOL) override
    {
        return this->refuse("put_NotificationsDisabled");
    }
    HRESULT STDMETHODCALLTYPE get_UnicastResponsesToMulticastBroadcastDisabled(Profile, VARIANT_BOOL *) override
    {
        return this->refuse("get_UnicastResponsesToMulticastBroadcastDisabled");
    }
    HRESULT STDMETHODCALLTYPE put_UnicastResponsesToMulticastBroadcastDisabled(Profile, VARIANT_BOOL) override
    {
        return this->refuse("put_UnicastResponsesToMulticastBroadcastDisabled");
    }
    HRESULT STDMETHODCALLTYPE get_ServiceRestriction(INetFwServiceRestriction **) override
    {
        return this->refuse("get_ServiceRestriction");
    }
    HRESULT STDMETHODCALLTYPE EnableRuleGroup(LONG, BSTR, VARIANT_BOOL) override
    {
        return this->refuse("EnableRuleGroup");
    }
    HRESULT STDMETHODCALLTYPE IsRuleGroupEnabled(LONG, BSTR, VARIANT_BOOL *) override
    {
        return this->refuse("IsRuleGroupEnabled");
    }
    HRESULT STDMETHODCALLTYPE RestoreLocalFirewallDefaults() override
    {
        return this->refuse("RestoreLocalFirewallDefaults");
    }
    HRESULT STDMETHODCALLTYPE get_DefaultInboundAction(Profile, NET_FW_ACTION *) override
    {
        return this->refuse("get_DefaultInboundAction");
    }
    HRESULT STDMETHODCALLTYPE put_DefaultInboundAction(Profile, NET_FW_ACTION) override
    {
        return this->refuse("put_DefaultInboundAction");
    }
    HRESULT STDMETHODCALLTYPE get_DefaultOutboundAction(Profile, NET_FW_ACTION *) override
    {
        return this->refuse("get_DefaultOutboundAction");
    }
    HRESULT STDMETHODCALLTYPE put_DefaultOutboundAction(Profile, NET_FW_ACTION) override
    {
        return this->refuse("put_DefaultOutboundAction");
    }
    HRESULT STDMETHODCALLTYPE get_IsRuleGroupCurrentlyEnabled(BSTR, VARIANT_BOOL *) override
    {
        return this->refuse("get_IsRuleGroupCurrentlyEnabled");
    }
    HRESULT STDMETHODCALLTYPE get_LocalPolicyModifyState(NET_FW_MODIFY_STATE *) override
    {
        return this->refuse("get_LocalPolicyModifyState");
    }

protected:
    ~RefusingPolicy() = default;
};

template<typename Base>
class RefusingRules : public Base
{
public:
    using Base::Base;

    HRESULT STDMETHODCALLTYPE get_Count(LONG *) override { return this->refuse("get_Count"); }
    HRESULT STDMETHODCALLTYPE Item(BSTR, INetFwRule **) override { return this->refuse("Item"); }
    HRESULT STDMETHODCALLTYPE get__NewEnum(IUnknown **) override { return this->refuse("get__NewEnum"); }

protected:
    ~RefusingRules() = default;
};

template<typename Base>
class RefusingRule : public Base
{
public:
    using Base::Base;

    HRESULT STDMETHODCALLTYPE get_Name(BSTR *) override { return this->refuse("get_Name"); }
    HRESULT STDMETHODCALLTYPE get_Description(BSTR *) override { return this->refuse("get_Description"); }
    HRESULT STDMETHODCALLTYPE get_ApplicationName(BSTR *) override { return this->refuse("get_ApplicationName"); }
    HRESULT STDMETHODCALLTYPE get_ServiceName(BSTR *) override { return this->refuse("get_ServiceName"); }
    HRESULT STDMETHODCALLTYPE put_ServiceName(BSTR) override { return this->refuse("put_ServiceName"); }
    HRESULT STDMETHODCALLTYPE get_Protocol(LONG *) override { return this->refuse("get_Protocol"); }
    HRESULT STDMETHODCALLTYPE get_LocalPorts(BSTR *) override { return this->refuse("get_LocalPorts"); }
    HRESULT STDMETHODCALLTYPE put_LocalPorts(BSTR) override { return this->refuse("put_LocalPorts"); }
    HRESULT STDMETHODCALLTYPE get_RemotePorts(BSTR *) override { return this->refuse("get_RemotePorts"); }
    HRESULT STDMETHODCALLTYPE put_RemotePorts(BSTR) override { return this->refuse("put_RemotePorts"); }
    HRESULT STDMETHODCALLTYPE get_LocalAddresses(BSTR *) override { return this->refuse("get_LocalAddresses"); }
    HRESULT STDMETHODCALLTYPE put_LocalAddresses(BSTR) override { return this->refuse("put_LocalAddresses"); }
    HRESULT STDMETHODCALLTYPE get_RemoteAddresses(BSTR *) override { return this->refuse("get_RemoteAddresses"); }
    HRESULT STDMETHODCALLTYPE put_RemoteAddresses(BSTR) override { return this->refuse("put_RemoteAddresses"); }
    HRESULT STDMETHODCALLTYPE get_IcmpTypesAndCodes(BSTR *) override { return this->refuse("get_IcmpTypesAndCodes"); }
    HRESULT STDMETHODCALLTYPE put_IcmpTypesAndCodes(BSTR) override { return this->refuse("put_IcmpTypesAndCodes"); }
    HRESULT STDMETHODCALLTYPE get_Direction(NET_FW_RULE_DIRECTION *) override
    {
        return this->refuse("get_Direction");
    }
    HRESULT STDMETHODCALLTYPE get_Interfaces(VARIANT *) override { return this->refuse("get_Interfaces"); }
    HRESULT STDMETHODCALLTYPE put_Interfaces(VARIANT) override { return this->refuse("put_Interfaces"); }
    HRESULT STDMETHODCALLTYPE get_InterfaceTypes(BSTR *) override { return this->refuse("get_InterfaceTypes"); }
    HRESULT STDMETHODCALLTYPE put_InterfaceTypes(BSTR) override { return this->refuse("put_InterfaceTypes"); }
    HRESULT STDMETHODCALLTYPE get_Enabled(VARIANT_BOOL *) override { return this->refuse("get_Enabled"); }
    HRESULT STDMETHODCALLTYPE get_Grouping(BSTR *) override { return this->refuse("get_Grouping"); }
    HRESULT STDMETHODCALLTYPE put_Grouping(BSTR) override { return this->refuse("put_Grouping"); }
    HRESULT STDMETHODCALLTYPE get_Profiles(LONG *) override { return this->refuse("get_Profiles"); }
    HRESULT STDMETHODCALLTYPE put_Profiles(LONG) override { return this->refuse("put_Profiles"); }
    HRESULT STDMETHODCALLTYPE get_EdgeTraversal(VARIANT_BOOL *) override { return this->refuse("get_EdgeTraversal"); }
    HRESULT STDMETHODCALLTYPE put_EdgeTraversal(VARIANT_BOOL) override { return this->refuse("put_EdgeTraversal"); }
    HRESULT STDMETHODCALLTYPE get_Action(NET_FW_ACTION *) override { return this->refuse("get_Action"); }

protected:
    ~RefusingRule() = default;
};

} // namespace ruvo::winehost
