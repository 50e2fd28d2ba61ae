#pragma once

#include "common/winsock_headers.h"

#include "windows/netcfg/firewall_calls.h"
#include "windows/support/import_redirection.h"

#include <objbase.h>
#include <oleauto.h>

#include <QString>
#include <QStringList>

namespace ruvo::test {

/// COM and the Windows Firewall behind it, as far as the firewall manager calls them: a list of rules by name, of
/// which several may have the same.
class FakeFirewallPolicy
{
public:
    explicit FakeFirewallPolicy(FirewallCalls &calls);
    /// Expects that no object and no text is left, and that COM has been left as it was found.
    ~FakeFirewallPolicy();
    FakeFirewallPolicy(const FakeFirewallPolicy &) = delete;
    FakeFirewallPolicy &operator=(const FakeFirewallPolicy &) = delete;

    QStringList ruleNames;
    /// To remove a rule that there is not succeeds.
    bool absentRuleIsNoError = false;
    /// What CoInitializeEx answers, unless it fails by plan.
    HRESULT initialization = S_OK;
    /// CoInitializeEx and CoUninitialize are Windows' own.
    bool usesRealApartments = false;
    /// Number `nth` of the texts from here on finds no memory.
    void refuseText(int nth) { m_textsUntilRefusal = nth; }

    int liveObjects = 0;
    int liveTexts = 0;
    int comUses = 0;

private:
    HRESULT initialize(void *reserved, DWORD apartment);
    void uninitialize();
    HRESULT create(const QString &classId, const QString &interfaceId, DWORD context, void **object);
    BSTR allocate(const OLECHAR *text);
    void release(BSTR text);

    FirewallCalls &m_calls;
    int m_textsUntilRefusal = 0;

    const ImportRedirection<IMPORT(CoInitializeEx)> m_initialize;
    const ImportRedirection<IMPORT(CoUninitialize)> m_uninitialize;
    const ImportRedirection<IMPORT(CoCreateInstance)> m_create;
    const ImportRedirection<IMPORT(SysAllocString)> m_allocate;
    const ImportRedirection<IMPORT(SysFreeString)> m_release;
};

} // namespace ruvo::test
