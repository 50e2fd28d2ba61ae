#pragma once

#include "firewall/recorded_object.h"
#include "firewall/refusing_interfaces.h"

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
class FirewallRule final : public RefusingRule<RecordedObject<INetFwRule>>
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
