#include "windows/netcfg/fake_firewall_policy.h"

#include "windows/netcfg/fake_com_object.h"
#include "winehost/firewall/refusing_interfaces.h"

#include <gtest/gtest.h>

namespace ruvo::test {

namespace {

// As documented, by their numbers: nothing is shared with the product's declarations.
const QString policyClass = "{E2B3C97F-6AE1-41AC-817A-F6F92166D7DD}";     // NetFwPolicy2
const QString policyInterface = "{98325047-C671-4174-8D81-DEFCD3F03186}"; // INetFwPolicy2
const QString ruleClass = "{2C5BC43E-3369-4C33-AB0C-BE9469677AF4}";       // NetFwRule
const QString ruleInterface = "{AF230D27-BABA-4E42-ACED-F524F22CFCE2}";   // INetFwRule

class FakeRule : public winehost::RefusingRule<FakeComObject<INetFwRule>>
{
public:
    FakeRule(FirewallCalls &calls, FakeFirewallPolicy &policy) : RefusingRule(policy.liveObjects), m_calls(calls) {}

    QString name;

    HRESULT STDMETHODCALLTYPE put_Name(BSTR text) override
    {
        name = QString::fromWCharArray(text);
        return answer("put_Name " + name);
    }
    HRESULT STDMETHODCALLTYPE put_Description(BSTR text) override
    {
        return answer("put_Description " + QString::fromWCharArray(text));
    }
    HRESULT STDMETHODCALLTYPE put_ApplicationName(BSTR text) override
    {
        return answer("put_ApplicationName " + QString::fromWCharArray(text));
    }
    HRESULT STDMETHODCALLTYPE put_Protocol(LONG value) override { return answer("put_Protocol", value); }
    HRESULT STDMETHODCALLTYPE put_Direction(NET_FW_RULE_DIRECTION value) override
    {
        return answer("put_Direction", value);
    }
    HRESULT STDMETHODCALLTYPE put_Action(NET_FW_ACTION value) override { return answer("put_Action", value); }
    HRESULT STDMETHODCALLTYPE put_Enabled(VARIANT_BOOL value) override { return answer("put_Enabled", value); }

private:
    HRESULT answer(const QString &text) { return static_cast<HRESULT>(m_calls.answer("INetFwRule::" + text)); }
    HRESULT answer(const QString &function, int value) { return answer(function + " " + QString::number(value)); }

    FirewallCalls &m_calls;
};

class FakeRules : public winehost::RefusingRules<FakeComObject<INetFwRules>>
{
public:
    FakeRules(FirewallCalls &calls, FakeFirewallPolicy &policy)
        : RefusingRules(policy.liveObjects), m_calls(calls), m_policy(policy)
    {}

    HRESULT STDMETHODCALLTYPE Add(INetFwRule *rule) override
    {
        const QString name = static_cast<FakeRule *>(rule)->name;
        const auto result = static_cast<HRESULT>(m_calls.answer("INetFwRules::Add"));
        if (SUCCEEDED(result))
            m_policy.ruleNames.append(name);
        return result;
    }
    HRESULT STDMETHODCALLTYPE Remove(BSTR text) override
    {
        const QString name = QString::fromWCharArray(text);
        const auto result = static_cast<HRESULT>(m_calls.answer("INetFwRules::Remove " + name));
        if (FAILED(result))
            return result;
        const bool isRemoved = m_policy.ruleNames.removeOne(name);
        return isRemoved || m_policy.absentRuleIsNoError ? S_OK : static_cast<HRESULT>(0x80070002);
    }

private:
    FirewallCalls &m_calls;
    FakeFirewallPolicy &m_policy;
};

class FakePolicy : public winehost::RefusingPolicy<FakeComObject<INetFwPolicy2>>
{
public:
    FakePolicy(FirewallCalls &calls, FakeFirewallPolicy &policy)
        : RefusingPolicy(policy.liveObjects), m_calls(calls), m_policy(policy)
    {}

    HRESULT STDMETHODCALLTYPE get_Rules(INetFwRules **rules) override
    {
        const auto result = static_cast<HRESULT>(m_calls.answer("INetFwPolicy2::get_Rules"));
        *rules = SUCCEEDED(result) ? new FakeRules(m_calls, m_policy) : nullptr;
        return result;
    }

private:
    FirewallCalls &m_calls;
    FakeFirewallPolicy &m_policy;
};

} // namespace

FakeFirewallPolicy::FakeFirewallPolicy(FirewallCalls &calls)
    : m_calls(calls)
    , m_initialize([this](void *reserved, DWORD apartment) -> HRESULT { return initialize(reserved, apartment); })
    , m_uninitialize([this] { uninitialize(); })
    , m_create(
          [this](REFCLSID classId, LPUNKNOWN outer, DWORD context, REFIID interfaceId, LPVOID *object) -> HRESULT {
              EXPECT_EQ(outer, nullptr);
              return create(guidText(classId), guidText(interfaceId), context, object);
          })
    , m_allocate([this](const OLECHAR *text) -> BSTR { return allocate(text); })
    , m_release([this](BSTR text) { release(text); })
{}

FakeFirewallPolicy::~FakeFirewallPolicy()
{
    EXPECT_EQ(liveObjects, 0);
    EXPECT_EQ(liveTexts, 0);
    EXPECT_EQ(comUses, 0);
}

HRESULT FakeFirewallPolicy::initialize(void *reserved, DWORD apartment)
{
    auto result = static_cast<HRESULT>(m_calls.answer(QString("CoInitializeEx %1").arg(apartment)));
    if (SUCCEEDED(result))
        result = usesRealApartments ? m_initialize.real(reserved, apartment) : initialization;
    if (SUCCEEDED(result))
        ++comUses;
    return result;
}

void FakeFirewallPolicy::uninitialize()
{
    EXPECT_EQ(liveObjects, 0) << "an object that is released after COM has ended";
    m_calls.note("CoUninitialize");
    --comUses;
    if (usesRealApartments)
        m_uninitialize.real();
}

HRESULT FakeFirewallPolicy::create(const QString &classId, const QString &interfaceId, DWORD context, void **object)
{
    *object = nullptr;
    const bool isPolicy = classId == policyClass && interfaceId == policyInterface;
    const bool isRule = classId == ruleClass && interfaceId == ruleInterface;
    const QString name = isPolicy ? "NetFwPolicy2" : isRule ? "NetFwRule" : classId + " " + interfaceId;
    const auto result =
        static_cast<HRESULT>(m_calls.answer(QString("CoCreateInstance %1 context %2").arg(name).arg(context)));
    if (FAILED(result))
        return result;
    if (isPolicy)
        *object = static_cast<INetFwPolicy2 *>(new FakePolicy(m_calls, *this));
    else if (isRule)
        *object = static_cast<INetFwRule *>(new FakeRule(m_calls, *this));
    return *object ? S_OK : REGDB_E_CLASSNOTREG;
}

BSTR FakeFirewallPolicy::allocate(const OLECHAR *text)
{
    if (m_textsUntilRefusal > 0 && --m_textsUntilRefusal == 0)
        return nullptr;
    ++liveTexts;
    return m_allocate.real(text);
}

void FakeFirewallPolicy::release(BSTR text)
{
    if (text)
        --liveTexts;
    m_release.real(text);
}

} // namespace ruvo::test
