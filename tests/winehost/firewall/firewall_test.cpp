#include "library/json_value.h"
#include "namespace/bench_files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <windows.h>

#include <netfw.h>
#include <oleauto.h>

#include <fstream>
#include <sstream>
#include <thread>

namespace ruvo::test {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

constexpr HRESULT noSuchRule = static_cast<HRESULT>(0x80070002);

/// Text as COM wants it, for as long as an expression.
class Bstr
{
public:
    explicit Bstr(const wchar_t *text) : m_text(SysAllocString(text)) {}
    ~Bstr() { SysFreeString(m_text); }
    Bstr(const Bstr &) = delete;
    Bstr &operator=(const Bstr &) = delete;
    operator BSTR() const { return m_text; }

private:
    BSTR m_text;
};

template<typename Interface>
HRESULT make(REFCLSID classId, Interface *&made)
{
    return CoCreateInstance(classId, nullptr, CLSCTX_INPROC_SERVER, __uuidof(Interface),
                            reinterpret_cast<void **>(&made));
}

class FirewallTest : public ::testing::Test
{
protected:
    /// A program of COM alone needs none of the libraries that lead to the bench's own.
    static void SetUpTestSuite() { ASSERT_NE(LoadLibraryW(L"winehost.dll"), nullptr); }

    void SetUp() override
    {
        clearBenchFolder();
        ASSERT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
        ASSERT_EQ(make(__uuidof(NetFwPolicy2), m_policy), S_OK);
        ASSERT_EQ(m_policy->get_Rules(&m_rules), S_OK);
    }

    void TearDown() override
    {
        m_rules->Release();
        m_policy->Release();
        CoUninitialize();
        EXPECT_TRUE(journal("misuse").empty());
        clearBenchFolder();
    }

    static INetFwRule *rule(const wchar_t *name, const wchar_t *application = L"C:\\Ruvo\\ruvod.exe")
    {
        INetFwRule *made = nullptr;
        EXPECT_EQ(make(__uuidof(NetFwRule), made), S_OK);
        EXPECT_EQ(made->put_Name(Bstr(name)), S_OK);
        EXPECT_EQ(made->put_Description(Bstr(L"what it is for")), S_OK);
        EXPECT_EQ(made->put_ApplicationName(Bstr(application)), S_OK);
        EXPECT_EQ(made->put_Protocol(6), S_OK);
        EXPECT_EQ(made->put_Direction(NET_FW_RULE_DIR_IN), S_OK);
        EXPECT_EQ(made->put_Action(NET_FW_ACTION_ALLOW), S_OK);
        EXPECT_EQ(made->put_Enabled(VARIANT_TRUE), S_OK);
        return made;
    }

    HRESULT add(const wchar_t *name, const wchar_t *application = L"C:\\Ruvo\\ruvod.exe")
    {
        INetFwRule *made = rule(name, application);
        const HRESULT result = m_rules->Add(made);
        made->Release();
        return result;
    }

    static std::vector<winehost::JsonValue> stored()
    {
        std::ostringstream text;
        text << std::ifstream(benchFolder() / "firewall-rules.json").rdbuf();
        const auto parsed = winehost::parseJson(text.str());
        EXPECT_TRUE(parsed) << text.str();
        return parsed ? parsed->elements : std::vector<winehost::JsonValue>();
    }

    INetFwPolicy2 *m_policy = nullptr;
    INetFwRules *m_rules = nullptr;
};

} // namespace

TEST_F(FirewallTest, aRuleIsKeptUntilItIsRemovedByItsName)
{
    EXPECT_EQ(add(L"The rule (C:\\Ruvo\\ruvod.exe)"), S_OK);
    LONG count = 0;
    EXPECT_EQ(m_rules->get_Count(&count), S_OK);
    EXPECT_EQ(count, 1);
    const auto rules = stored();
    ASSERT_EQ(rules.size(), 1U);
    EXPECT_EQ(rules[0]["name"].text, "The rule (C:\\Ruvo\\ruvod.exe)");
    EXPECT_EQ(rules[0]["description"].text, "what it is for");
    EXPECT_EQ(rules[0]["application"].text, "C:\\Ruvo\\ruvod.exe");
    EXPECT_EQ(rules[0]["protocol"].number, 6);
    EXPECT_EQ(rules[0]["direction"].number, 1);
    EXPECT_EQ(rules[0]["action"].number, 1);
    EXPECT_TRUE(rules[0]["enabled"].flag);

    EXPECT_EQ(m_rules->Remove(Bstr(L"Another rule")), noSuchRule);
    EXPECT_EQ(m_rules->Remove(Bstr(L"THE RULE (C:\\Ruvo\\ruvod.exe)")), S_OK);
    EXPECT_TRUE(stored().empty());
    EXPECT_EQ(m_rules->Remove(Bstr(L"The rule (C:\\Ruvo\\ruvod.exe)")), noSuchRule);

    EXPECT_THAT(journal("INetFwRules::Add"),
                ElementsAre(HasSubstr(R"-("name":"The rule (C:\\Ruvo\\ruvod.exe)","description":"what it is for",)-"
                                      R"("application":"C:\\Ruvo\\ruvod.exe","protocol":6,"direction":1,"action":1,)"
                                      R"("enabled":true,"result":true)")));
    EXPECT_THAT(journal("INetFwRules::Remove"),
                ElementsAre(HasSubstr(R"("result":false,"error":2147942402)"), HasSubstr(R"("result":true)"),
                            HasSubstr(R"("error":2147942402)")));
    EXPECT_THAT(journal("INetFwRule::put_Protocol"), ElementsAre(HasSubstr(R"("number":6,"result":true)")));
}

TEST_F(FirewallTest, rulesOfOneNameAreRemovedOneByOneTheOldestFirst)
{
    EXPECT_EQ(add(L"same", L"C:\\first.exe"), S_OK);
    EXPECT_EQ(add(L"other"), S_OK);
    EXPECT_EQ(add(L"same", L"C:\\second.exe"), S_OK);
    EXPECT_EQ(m_rules->Remove(Bstr(L"same")), S_OK);
    const auto left = stored();
    ASSERT_EQ(left.size(), 2U);
    EXPECT_EQ(left[0]["name"].text, "other");
    EXPECT_EQ(left[1]["application"].text, "C:\\second.exe");
    EXPECT_EQ(m_rules->Remove(Bstr(L"same")), S_OK);
    EXPECT_EQ(m_rules->Remove(Bstr(L"same")), noSuchRule);
}

TEST_F(FirewallTest, aNewRuleHasWindowsDefaultsAndKeepsWhatIsPut)
{
    INetFwRule *made = nullptr;
    ASSERT_EQ(make(__uuidof(NetFwRule), made), S_OK);
    LONG protocol = 0;
    NET_FW_RULE_DIRECTION direction = NET_FW_RULE_DIR_OUT;
    NET_FW_ACTION action = NET_FW_ACTION_BLOCK;
    VARIANT_BOOL enabled = VARIANT_TRUE;
    EXPECT_EQ(made->get_Protocol(&protocol), S_OK);
    EXPECT_EQ(made->get_Direction(&direction), S_OK);
    EXPECT_EQ(made->get_Action(&action), S_OK);
    EXPECT_EQ(made->get_Enabled(&enabled), S_OK);
    EXPECT_EQ(protocol, 256);
    EXPECT_EQ(direction, NET_FW_RULE_DIR_IN);
    EXPECT_EQ(action, NET_FW_ACTION_ALLOW);
    EXPECT_EQ(enabled, VARIANT_FALSE);

    EXPECT_EQ(made->put_Protocol(257), E_INVALIDARG);
    EXPECT_EQ(made->put_Direction(NET_FW_RULE_DIR_MAX), E_INVALIDARG);
    EXPECT_EQ(made->put_Action(NET_FW_ACTION_MAX), E_INVALIDARG);
    EXPECT_EQ(made->put_Name(Bstr(L"a|b")), E_INVALIDARG);
    EXPECT_EQ(m_rules->Add(made), E_INVALIDARG); // without a name
    made->Release();

    EXPECT_EQ(add(L"found again"), S_OK);
    INetFwRule *found = nullptr;
    ASSERT_EQ(m_rules->Item(Bstr(L"found again"), &found), S_OK);
    BSTR text = nullptr;
    EXPECT_EQ(found->get_Description(&text), S_OK);
    EXPECT_STREQ(text, L"what it is for");
    SysFreeString(text);
    found->Release();
    EXPECT_EQ(m_rules->Item(Bstr(L"missing"), &found), noSuchRule);
    EXPECT_EQ(found, nullptr);
}

TEST_F(FirewallTest, everyCallFailsAsItIsPlanned)
{
    // The HRESULT without its sign: 0x80070005.
    constexpr HRESULT denied = static_cast<HRESULT>(0x80070005);
    INetFwRule *made = rule(L"planned");
    writeBenchFile("faults.txt", "INetFwPolicy2::get_Rules 1 2147942405\nINetFwRule::put_Name 1 2147942405\n"
                                 "INetFwRule::put_Enabled 1 2147942405\nINetFwRules::Add 1 2147942405\n"
                                 "INetFwRules::Remove 1 2147942405\nCoCreateInstance 2 2147942405\n"
                                 "CoInitializeEx 1 2147942405\n");
    INetFwRules *rules = nullptr;
    EXPECT_EQ(m_policy->get_Rules(&rules), denied);
    EXPECT_EQ(rules, nullptr);
    EXPECT_EQ(made->put_Name(Bstr(L"other")), denied);
    EXPECT_EQ(made->put_Enabled(VARIANT_FALSE), denied);
    EXPECT_EQ(m_rules->Add(made), denied);
    EXPECT_EQ(m_rules->Add(made), S_OK);
    EXPECT_EQ(stored().at(0)["name"].text, "planned");
    EXPECT_TRUE(stored().at(0)["enabled"].flag);
    EXPECT_EQ(m_rules->Remove(Bstr(L"planned")), denied);
    EXPECT_EQ(stored().size(), 1U);
    EXPECT_EQ(made->Release(), 0U);
    INetFwPolicy2 *policy = nullptr;
    EXPECT_EQ(make(__uuidof(NetFwPolicy2), policy), S_OK);
    policy->Release();
    EXPECT_EQ(make(__uuidof(NetFwRule), made), denied);
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), denied);
    EXPECT_EQ(journal("\"planned\":true").size(), 7U);
}

TEST_F(FirewallTest, lastReleasesAreLinesOfTheJournalAndCallsAfterThemMisuse)
{
    INetFwRule *made = nullptr;
    ASSERT_EQ(make(__uuidof(NetFwRule), made), S_OK);
    void *same = nullptr;
    EXPECT_EQ(made->QueryInterface(IID_IDispatch, &same), S_OK);
    EXPECT_EQ(same, made);
    EXPECT_EQ(made->QueryInterface(IID_IClassFactory, &same), E_NOINTERFACE);
    EXPECT_EQ(same, nullptr);
    EXPECT_EQ(made->Release(), 1U);
    EXPECT_TRUE(journal("INetFwRule::Release").empty());
    EXPECT_EQ(made->Release(), 0U);
    EXPECT_EQ(journal("INetFwRule::Release").size(), 1U);
    EXPECT_EQ(made->Release(), 0U);
    EXPECT_THAT(journal("misuse"), ElementsAre(HasSubstr(R"("misuse":"after the last release")")));
    clearBenchFolder();
}

TEST_F(FirewallTest, apartmentsAreReal)
{
    std::thread([] {
        INetFwPolicy2 *policy = nullptr;
        EXPECT_EQ(make(__uuidof(NetFwPolicy2), policy), CO_E_NOTINITIALIZED);
        EXPECT_EQ(policy, nullptr);
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), RPC_E_CHANGED_MODE);
        ASSERT_EQ(make(__uuidof(NetFwPolicy2), policy), S_OK);
        policy->Release();
        CoUninitialize();
        EXPECT_EQ(make(__uuidof(NetFwPolicy2), policy), CO_E_NOTINITIALIZED);
    }).join();
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_FALSE);
    CoUninitialize();
    EXPECT_THAT(journal("CoInitializeEx"),
                ElementsAre(HasSubstr(R"("model":"apartment")"), HasSubstr(R"("model":"multithreaded","flags":0)"),
                            HasSubstr(R"("result":false,"error":2147549446)"),
                            HasSubstr(R"("result":true,"error":1)")));
}

TEST_F(FirewallTest, otherClassesAreWinesOwn)
{
    IUnknown *made = nullptr;
    const CLSID unknown{1, 2, 3, {}};
    EXPECT_EQ(make(unknown, made), REGDB_E_CLASSNOTREG);
    const CLSID stdGlobalInterfaceTable{0x323, 0, 0, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
    ASSERT_EQ(make(stdGlobalInterfaceTable, made), S_OK);
    made->Release();
    EXPECT_EQ(journal("CoCreateInstance").size(), 1U);
}

} // namespace ruvo::test
