#include "app/windows_service.h"

#include "windows/support/call_journal.h"
#include "windows/support/child_process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sddl.h>

#include <map>
#include <stdexcept>
#include <string>

namespace ruvo {
namespace {

using test::CallJournal;
using testing::ElementsAre;
using testing::IsEmpty;

const auto manager = reinterpret_cast<SC_HANDLE>(0x51);
const auto service = reinterpret_cast<SC_HANDLE>(0x52);

/// What `step` raised; empty if nothing.
template<typename Step>
std::string textRaisedBy(Step step)
{
    try {
        step();
        return {};
    } catch (const std::runtime_error &error) {
        return error.what();
    }
}

std::wstring toSddl(PSECURITY_DESCRIPTOR descriptor)
{
    LPWSTR text = nullptr;
    if (!ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, DACL_SECURITY_INFORMATION,
                                                              &text, nullptr)) {
        return L"no text: error " + std::to_wstring(GetLastError());
    }
    const LocalMemory owned(text);
    return text;
}

/// A service manager that grants everything, and writes down what it was asked.
class ServiceRegistration : public testing::Test
{
protected:
    static void SetUpTestSuite() { WindowsService::initialize(L"RuvoService", L"Ruvo Proxy Client Service"); }

    ServiceRegistration()
    {
        m_journal.watch<IMPORT(OpenSCManagerW)>([](auto...) { return manager; });
        m_journal.watch<IMPORT(GetModuleFileNameW)>(
            [this](HMODULE, LPWSTR path, DWORD size) { return fileName(path, size); });
        m_journal.watch<IMPORT(CreateServiceW)>([](auto...) { return service; });
        m_journal.watch<IMPORT(OpenServiceW)>([](auto...) { return service; });
        m_journal.watch<IMPORT(ConvertStringSecurityDescriptorToSecurityDescriptorW)>();
        m_journal.watch<IMPORT(SetServiceObjectSecurity)>(
            [this](SC_HANDLE, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR descriptor) {
                m_descriptor = descriptor;
                return TRUE;
            });
        m_journal.watch<IMPORT(ControlService)>([](auto...) { return TRUE; });
        m_journal.watch<IMPORT(DeleteService)>([](auto...) { return TRUE; });
        m_journal.watch<IMPORT(CloseServiceHandle)>([](auto...) { return TRUE; });
    }

    /// As Windows: a path that does not fit is cut, and fills the buffer.
    DWORD fileName(LPWSTR path, DWORD size) const
    {
        const std::size_t length = m_path.copy(path, size - 1);
        path[length] = L'\0';
        if (length == m_path.size())
            return static_cast<DWORD>(length);
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return size;
    }

    void expectAllClosed() const
    {
        EXPECT_THAT(m_journal.unclosed({"OpenSCManagerW", "CreateServiceW", "OpenServiceW"}, "CloseServiceHandle"),
                    IsEmpty());
    }

    CallJournal m_journal;
    std::wstring m_path = LR"(C:\Program Files\Ruvo\ruvod.exe)";
    PSECURITY_DESCRIPTOR m_descriptor = nullptr;
};

TEST_F(ServiceRegistration, createsAnEntryThatIsStartedOnDemandAsLocalSystem)
{
    m_journal.watch<IMPORT(LocalFree)>();
    WindowsService::instance().registerService();

    const std::string descriptor = test::callText(m_descriptor);
    EXPECT_THAT(
        m_journal.lines(),
        ElementsAre("OpenSCManagerW(null, null, 2)", "GetModuleFileNameW(null, &, 0x104)",
                    "CreateServiceW(0x51, \"RuvoService\", \"Ruvo Proxy Client Service\", 0xf01ff, 0x10, 3, 1, "
                    "\"\"C:\\Program Files\\Ruvo\\ruvod.exe\"\", null, null, null, null, null)",
                    "ConvertStringSecurityDescriptorToSecurityDescriptorW(\""
                    "D:(A;;CCLCSWRPWPDTLOCRRC;;;SY)(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;BA)"
                    "(A;;CCLCSWRPWPDTLOCRRC;;;AU)\", 1, &, null)",
                    "SetServiceObjectSecurity(0x52, 4, " + descriptor + ')', "LocalFree(" + descriptor + ')',
                    "CloseServiceHandle(0x52)", "CloseServiceHandle(0x51)"));
}

TEST_F(ServiceRegistration, letsEveryLoggedOnUserStartAndStopTheService)
{
    std::wstring sddl;
    const test::ImportRedirection<IMPORT(SetServiceObjectSecurity)> apply(
        [&sddl](SC_HANDLE, SECURITY_INFORMATION, PSECURITY_DESCRIPTOR descriptor) {
            sddl = toSddl(descriptor);
            return TRUE;
        });
    WindowsService::instance().registerService();
    EXPECT_EQ(sddl, L"D:(A;;CCLCSWRPWPDTLOCRRC;;;SY)(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;BA)"
                    L"(A;;CCLCSWRPWPDTLOCRRC;;;AU)");
}

TEST_F(ServiceRegistration, saysWhichStepFailedAndClosesWhatItOpened)
{
    const std::map<std::string, std::string> texts = {
        {"OpenSCManagerW", "Failed to open Service Control Manager"},
        {"GetModuleFileNameW", "Failed to get module file name"},
        {"CreateServiceW", "Failed to create service"},
        // Then the service keeps its default access.
        {"ConvertStringSecurityDescriptorToSecurityDescriptorW", ""},
        {"SetServiceObjectSecurity", ""},
        {"CloseServiceHandle", ""},
        {"", ""},
    };
    std::size_t runs = 0;
    test::forEachFailure(m_journal, ERROR_ACCESS_DENIED, [&] {
        const std::string text = textRaisedBy([] { WindowsService::instance().registerService(); });
        SCOPED_TRACE("failing: " + m_journal.failed());
        EXPECT_EQ(text, texts.at(m_journal.failed()));
        expectAllClosed();
        ++runs;
    });
    EXPECT_EQ(runs, 8u);
}

TEST_F(ServiceRegistration, givesUpAtTheStepThatFailed)
{
    m_journal.fail("CreateServiceW", ERROR_ACCESS_DENIED);
    textRaisedBy([] { WindowsService::instance().registerService(); });
    EXPECT_THAT(m_journal.lines().back(), "CloseServiceHandle(0x51)");
    EXPECT_EQ(m_journal.lines().size(), 4u);
}

TEST_F(ServiceRegistration, doesNotFreeADescriptorThatItDidNotGet)
{
    m_journal.watch<IMPORT(LocalFree)>();
    m_journal.fail("ConvertStringSecurityDescriptorToSecurityDescriptorW", ERROR_NOT_ENOUGH_MEMORY);
    WindowsService::instance().registerService();
    for (const std::string &line : m_journal.lines()) {
        EXPECT_FALSE(line.starts_with("LocalFree")) << line;
        EXPECT_FALSE(line.starts_with("SetServiceObjectSecurity")) << line;
    }
}

TEST_F(ServiceRegistration, freesTheDescriptorThatCouldNotBeApplied)
{
    m_journal.watch<IMPORT(LocalFree)>();
    m_journal.fail("SetServiceObjectSecurity", ERROR_ACCESS_DENIED);
    EXPECT_EQ(textRaisedBy([] { WindowsService::instance().registerService(); }), "");
    EXPECT_TRUE(m_journal.lines().at(5).starts_with("LocalFree(0x"));
}

TEST_F(ServiceRegistration, saysThatTheServiceExistsAlready)
{
    m_journal.fail("CreateServiceW", ERROR_SERVICE_EXISTS);
    EXPECT_EQ(textRaisedBy([] { WindowsService::instance().registerService(); }), "Service already exists");
    expectAllClosed();
}

TEST_F(ServiceRegistration, registersThePathThatJustFits)
{
    m_path.assign(MAX_PATH - 1, L'x');
    EXPECT_EQ(textRaisedBy([] { WindowsService::instance().registerService(); }), "");
    const std::string quoted = "\"\"" + std::string(MAX_PATH - 1, 'x') + "\"\"";
    EXPECT_THAT(m_journal.lines().at(2), testing::HasSubstr(quoted));
}

TEST_F(ServiceRegistration, refusesAPathThatIsTooLong)
{
    m_path.assign(MAX_PATH, L'x');
    EXPECT_EQ(textRaisedBy([] { WindowsService::instance().registerService(); }), "Failed to get module file name");
    EXPECT_THAT(m_journal.lines(), ElementsAre("OpenSCManagerW(null, null, 2)", "GetModuleFileNameW(null, &, 0x104)",
                                               "CloseServiceHandle(0x51)"));
}

TEST_F(ServiceRegistration, removesTheServiceAfterStoppingIt)
{
    WindowsService::instance().unregisterService();
    EXPECT_THAT(m_journal.lines(),
                ElementsAre("OpenSCManagerW(null, null, 1)", "OpenServiceW(0x51, \"RuvoService\", 0x10020)",
                            "ControlService(0x52, 1, &)", "DeleteService(0x52)", "CloseServiceHandle(0x52)",
                            "CloseServiceHandle(0x51)"));
}

TEST_F(ServiceRegistration, saysWhichStepOfTheRemovalFailed)
{
    const std::map<std::string, std::string> texts = {
        {"OpenSCManagerW", "Failed to open Service Control Manager"},
        {"OpenServiceW", "Failed to open service"},
        {"ControlService", ""}, // it does not run
        {"DeleteService", "Failed to delete service"},
        {"CloseServiceHandle", ""},
        {"", ""},
    };
    std::size_t runs = 0;
    test::forEachFailure(m_journal, ERROR_SERVICE_NOT_ACTIVE, [&] {
        const std::string text = textRaisedBy([] { WindowsService::instance().unregisterService(); });
        SCOPED_TRACE("failing: " + m_journal.failed());
        EXPECT_EQ(text, texts.at(m_journal.failed()));
        if (m_journal.failed() == "ControlService") {
            EXPECT_EQ(m_journal.count("DeleteService(0x52)"), 1u);
        }
        expectAllClosed();
        ++runs;
    });
    EXPECT_EQ(runs, 7u);
}

TEST_IN_OWN_PROCESS(WindowsServiceInstance, isThereOnceItWasInitialised)
{
    EXPECT_EQ(textRaisedBy([] { WindowsService::instance(); }), "WindowsService not initialized");
    WindowsService::initialize(L"a", L"b");
    EXPECT_EQ(textRaisedBy([] { WindowsService::instance(); }), "");
    EXPECT_EQ(textRaisedBy([] { WindowsService::initialize(L"a", L"b"); }), "WindowsService already initialized");
    EXPECT_EQ(textRaisedBy([] { WindowsService::instance(); }), "");
}

TEST_IN_OWN_PROCESS(WindowsServiceInstance, isNotThereIfItsEventsCannotBeMade)
{
    CallJournal journal;
    journal.watch<IMPORT(CreateEventW)>();
    journal.watch<IMPORT(CloseHandle)>();
    for (const std::size_t failing : {1u, 2u}) {
        journal.clear();
        journal.fail("CreateEventW", ERROR_NOT_ENOUGH_MEMORY, failing);
        EXPECT_EQ(textRaisedBy([] { WindowsService::initialize(L"a", L"b"); }), "Failed to create stop event");
        EXPECT_THAT(journal.unclosed({"CreateEventW"}, "CloseHandle"), IsEmpty());
        EXPECT_EQ(textRaisedBy([] { WindowsService::instance(); }), "WindowsService not initialized");
    }
    journal.clear();
    WindowsService::initialize(L"a", L"b");
    // Manual-reset, not signalled, without a name.
    EXPECT_EQ(journal.lines().front(), "CreateEventW(null, 1, 0, null)");
}

} // namespace
} // namespace ruvo
