#pragma once

// The COM interfaces of the Windows Firewall with all that nobody calls: it is refused, and fails the test.

#include "common/winsock_headers.h"

#include <gtest/gtest.h>
#include <netfw.h>

// COM's interfaces have no virtual destructor: their objects are released, never deleted through them.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

namespace ruvo::test {

inline HRESULT notExpected()
{
    ADD_FAILURE() << "a COM call that nobody expects";
    return E_NOTIMPL;
}

/// Counts its references, begins with one, and goes with the last. `live` is how many objects there are.
template<typename Interface>
class FakeComObject : public Interface
{
public:
    explicit FakeComObject(int &live) : m_live(live) { ++m_live; }
    virtual ~FakeComObject() { --m_live; }
    FakeComObject(const FakeComObject &) = delete;
    FakeComObject &operator=(const FakeComObject &) = delete;

    ULONG STDMETHODCALLTYPE AddRef() override { return ++m_references; }
    ULONG STDMETHODCALLTYPE Release() override
    {
        const ULONG left = --m_references;
        if (left == 0)
            delete this;
        return left;
    }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void **) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo **) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR *, UINT, LCID, DISPID *) override
    {
        return notExpected();
    }
    HRESULT STDMETHODCALLTYPE Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS *, VARIANT *, EXCEPINFO *,
                                     UINT *) override
    {
        return notExpected();
    }

private:
    int &m_live;
    ULONG m_references = 1;
};

class RefusingPolicy : public FakeComObject<INetFwPolicy2>
{
public:
    using FakeComObject::FakeComObject;

    using Profile = NET_FW_PROFILE_TYPE2;
    HRESULT STDMETHODCALLTYPE get_CurrentProfileTypes(LONG *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_FirewallEnabled(Profile, VARIANT_BOOL *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE put_FirewallEnabled(Profile, VARIANT_BOOL) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_ExcludedInterfaces(Profile, VARIANT *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE put_ExcludedInterfaces(Profile, VARIANT) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_BlockAllInboundTraffic(Profile, VARIANT_BOOL *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE put_BlockAllInboundTraffic(Profile, VARIANT_BOOL) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_NotificationsDisabled(Profile, VARIANT_BOOL *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE put_NotificationsDisabled(Profile, VARIANT_BOOL) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_UnicastResponsesToMulticastBroadcastDisabled(Profile, VARIANT_BOOL *) override
    {
        return notExpected();
    }
    HRESULT STDMETHODCALLTYPE put_UnicastResponsesToMulticastBroadcastDisabled(Profile, VARIANT_BOOL) override
    {
        return notExpected();
    }
    HRESULT STDMETHODCALLTYPE get_ServiceRestriction(INetFwServiceRestriction **) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE EnableRuleGroup(LONG, BSTR, VARIANT_BOOL) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE IsRuleGroupEnabled(LONG, BSTR, VARIANT_BOOL *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE RestoreLocalFirewallDefaults() override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_DefaultInboundAction(Profile, NET_FW_ACTION *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE put_DefaultInboundAction(Profile, NET_FW_ACTION) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_DefaultOutboundAction(Profile, NET_FW_ACTION *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE put_DefaultOutboundAction(Profile, NET_FW_ACTION) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_IsRuleGroupCurrentlyEnabled(BSTR, VARIANT_BOOL *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_LocalPolicyModifyState(NET_FW_MODIFY_STATE *) override { return notExpected(); }
};

class RefusingRules : public FakeComObject<INetFwRules>
{
public:
    using FakeComObject::FakeComObject;

    HRESULT STDMETHODCALLTYPE get_Count(LONG *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE Item(BSTR, INetFwRule **) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get__NewEnum(IUnknown **) override { return notExpected(); }
};

class RefusingRule : public FakeComObject<INetFwRule>
{
public:
    using FakeComObject::FakeComObject;

    HRESULT STDMETHODCALLTYPE get_Name(BSTR *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_Description(BSTR *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_ApplicationName(BSTR *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_ServiceName(BSTR *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE put_ServiceName(BSTR) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_Protocol(LONG *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_LocalPorts(BSTR *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE put_LocalPorts(BSTR) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_RemotePorts(BSTR *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE put_RemotePorts(BSTR) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_LocalAddresses(BSTR *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE put_LocalAddresses(BSTR) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_RemoteAddresses(BSTR *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE put_RemoteAddresses(BSTR) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_IcmpTypesAndCodes(BSTR *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE put_IcmpTypesAndCodes(BSTR) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_Direction(NET_FW_RULE_DIRECTION *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_Interfaces(VARIANT *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE put_Interfaces(VARIANT) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_InterfaceTypes(BSTR *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE put_InterfaceTypes(BSTR) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_Enabled(VARIANT_BOOL *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_Grouping(BSTR *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE put_Grouping(BSTR) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_Profiles(LONG *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE put_Profiles(LONG) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_EdgeTraversal(VARIANT_BOOL *) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE put_EdgeTraversal(VARIANT_BOOL) override { return notExpected(); }
    HRESULT STDMETHODCALLTYPE get_Action(NET_FW_ACTION *) override { return notExpected(); }
};

} // namespace ruvo::test

#pragma GCC diagnostic pop
