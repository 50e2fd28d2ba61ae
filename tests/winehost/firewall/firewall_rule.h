#pragma once

#include "firewall/recorded_object.h"

#include <string>

namespace ruvo::winehost {

/// What this bench knows of a rule; as a new one has it.
struct RuleProperties
{
    static constexpr LONG anyProtocol = 256;

    std::wstring name;
    std::wstring description;
    std::wstring application;
    LONG protocol = anyProtocol;
    LONG direction = NET_FW_RULE_DIR_IN;
    LONG action = NET_FW_ACTION_ALLOW;
    bool isEnabled = false;
};

/// A rule that is being made, or a copy of one of the collection. For one thread at a time, as all objects of an
/// apartment.
class FirewallRule final : public RecordedObject<INetFwRule>
{
public:
    explicit FirewallRule(RuleProperties properties = {});

    /// Of an object that the program hands over; null for one that was not made here.
    static const RuleProperties *propertiesOf(INetFwRule *rule);

    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID wanted, void **object) override;

    HRESULT STDMETHODCALLTYPE get_Name(BSTR *name) override;
    HRESULT STDMETHODCALLTYPE put_Name(BSTR name) override;
    HRESULT STDMETHODCALLTYPE get_Description(BSTR *text) override;
    HRESULT STDMETHODCALLTYPE put_Description(BSTR text) override;
    HRESULT STDMETHODCALLTYPE get_ApplicationName(BSTR *path) override;
    HRESULT STDMETHODCALLTYPE put_ApplicationName(BSTR path) override;
    HRESULT STDMETHODCALLTYPE get_Protocol(LONG *protocol) override;
    HRESULT STDMETHODCALLTYPE put_Protocol(LONG protocol) override;
    HRESULT STDMETHODCALLTYPE get_Direction(NET_FW_RULE_DIRECTION *direction) override;
    HRESULT STDMETHODCALLTYPE put_Direction(NET_FW_RULE_DIRECTION direction) override;
    HRESULT STDMETHODCALLTYPE get_Action(NET_FW_ACTION *action) override;
    HRESULT STDMETHODCALLTYPE put_Action(NET_FW_ACTION action) override;
    HRESULT STDMETHODCALLTYPE get_Enabled(VARIANT_BOOL *enabled) override;
    HRESULT STDMETHODCALLTYPE put_Enabled(VARIANT_BOOL enabled) override;

    // What rules of this bench do not have; whoever sets it shows in the journal.
    HRESULT STDMETHODCALLTYPE get_ServiceName(BSTR *) override { return refuse("get_ServiceName"); }
    HRESULT STDMETHODCALLTYPE put_ServiceName(BSTR) override { return refuse("put_ServiceName"); }
    HRESULT STDMETHODCALLTYPE get_LocalPorts(BSTR *) override { return refuse("get_LocalPorts"); }
    HRESULT STDMETHODCALLTYPE put_LocalPorts(BSTR) override { return refuse("put_LocalPorts"); }
    HRESULT STDMETHODCALLTYPE get_RemotePorts(BSTR *) override { return refuse("get_RemotePorts"); }
    HRESULT STDMETHODCALLTYPE put_RemotePorts(BSTR) override { return refuse("put_RemotePorts"); }
    HRESULT STDMETHODCALLTYPE get_LocalAddresses(BSTR *) override { return refuse("get_LocalAddresses"); }
    HRESULT STDMETHODCALLTYPE put_LocalAddresses(BSTR) override { return refuse("put_LocalAddresses"); }
    HRESULT STDMETHODCALLTYPE get_RemoteAddresses(BSTR *) override { return refuse("get_RemoteAddresses"); }
    HRESULT STDMETHODCALLTYPE put_RemoteAddresses(BSTR) override { return refuse("put_RemoteAddresses"); }
    HRESULT STDMETHODCALLTYPE get_IcmpTypesAndCodes(BSTR *) override { return refuse("get_IcmpTypesAndCodes"); }
    HRESULT STDMETHODCALLTYPE put_IcmpTypesAndCodes(BSTR) override { return refuse("put_IcmpTypesAndCodes"); }
    HRESULT STDMETHODCALLTYPE get_Interfaces(VARIANT *) override { return refuse("get_Interfaces"); }
    HRESULT STDMETHODCALLTYPE put_Interfaces(VARIANT) override { return refuse("put_Interfaces"); }
    HRESULT STDMETHODCALLTYPE get_InterfaceTypes(BSTR *) override { return refuse("get_InterfaceTypes"); }
    HRESULT STDMETHODCALLTYPE put_InterfaceTypes(BSTR) override { return refuse("put_InterfaceTypes"); }
    HRESULT STDMETHODCALLTYPE get_Grouping(BSTR *) override { return refuse("get_Grouping"); }
    HRESULT STDMETHODCALLTYPE put_Grouping(BSTR) override { return refuse("put_Grouping"); }
    HRESULT STDMETHODCALLTYPE get_Profiles(LONG *) override { return refuse("get_Profiles"); }
    HRESULT STDMETHODCALLTYPE put_Profiles(LONG) override { return refuse("put_Profiles"); }
    HRESULT STDMETHODCALLTYPE get_EdgeTraversal(VARIANT_BOOL *) override { return refuse("get_EdgeTraversal"); }
    HRESULT STDMETHODCALLTYPE put_EdgeTraversal(VARIANT_BOOL) override { return refuse("put_EdgeTraversal"); }

private:
    struct Range
    {
        LONG lowest;
        LONG highest;
    };

    HRESULT putText(const char *function, BSTR text, std::wstring RuleProperties::*property);
    HRESULT getText(const char *function, BSTR *text, std::wstring RuleProperties::*property);
    HRESULT putNumber(const char *function, LONG number, Range allowed, LONG RuleProperties::*property);
    template<typename T>
    HRESULT getNumber(const char *function, T *number, LONG RuleProperties::*property);

    RuleProperties m_properties;
};

} // namespace ruvo::winehost
