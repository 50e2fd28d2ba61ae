#include "netcfg/bypass_route_notes.h"

#include "support/log_capture.h"
#include "support/qt_printers.h"
#include "windows/netcfg/bypass_notes_key.h"
#include "windows/support/import_redirection.h"

#include <gmock/gmock.h>

namespace ruvo {
namespace {

using test::ImportRedirection;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr BypassRoute resolver{0x08080808, 0xC0000201, 12};
constexpr BypassRoute onLink{0x01010101, 0, 4294967295};
constexpr BypassRoute elsewhere{0x08080808, 0xC0000201, 13};

class BypassRouteNotesTest : public ::testing::Test
{
protected:
    bool has(const wchar_t *name) const
    {
        return RegQueryValueExW(m_key.notes().get(), name, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
    }
    void write(const wchar_t *name) const
    {
        EXPECT_EQ(RegSetValueExW(m_key.notes().get(), name, 0, REG_NONE, nullptr, 0), ERROR_SUCCESS);
    }

    test::LogCapture m_log;
    const test::NotesKey m_key;
    const BypassRouteNotes m_notes{m_key.path};
};

TEST_F(BypassRouteNotesTest, areReadByAnother)
{
    m_notes.add(resolver);
    m_notes.add(onLink);
    m_notes.add(elsewhere);
    EXPECT_TRUE(has(L"8.8.8.8 192.0.2.1 12"));
    EXPECT_TRUE(has(L"1.1.1.1 0.0.0.0 4294967295"));
    EXPECT_THAT(BypassRouteNotes(m_key.path).routes(), UnorderedElementsAre(resolver, onLink, elsewhere));
    EXPECT_EQ(m_log.lines(), QStringList());
}

TEST_F(BypassRouteNotesTest, areTakenBackOneByOne)
{
    m_notes.add(resolver);
    m_notes.add(elsewhere);
    m_notes.remove(resolver);
    EXPECT_THAT(m_notes.routes(), UnorderedElementsAre(elsewhere));
    m_notes.remove(resolver);
    m_notes.remove(elsewhere);
    EXPECT_THAT(m_notes.routes(), IsEmpty());
    EXPECT_EQ(m_log.lines(), QStringList());
}

TEST_F(BypassRouteNotesTest, areTheSameIfARouteIsAddedTwice)
{
    m_notes.add(resolver);
    m_notes.add(resolver);
    EXPECT_THAT(m_notes.routes(), UnorderedElementsAre(resolver));
}

TEST_F(BypassRouteNotesTest, areNoneAtFirstAndReadingMakesNoKey)
{
    EXPECT_THAT(m_notes.routes(), IsEmpty());
    m_notes.remove(resolver);
    EXPECT_FALSE(m_key.notes());
    EXPECT_EQ(m_log.lines(), QStringList());
}

TEST_F(BypassRouteNotesTest, goWithTheSystem)
{
    DWORD made = REG_OPTION_NON_VOLATILE;
    const ImportRedirection<IMPORT(RegCreateKeyExW)> create(
        [&](HKEY key, LPCWSTR name, DWORD reserved, LPWSTR type, DWORD options, auto... rest) {
            made = options;
            return create.real(key, name, reserved, type, options, rest...);
        });
    m_notes.add(resolver);
    EXPECT_EQ(made, DWORD{REG_OPTION_VOLATILE});
    EXPECT_THAT(m_notes.routes(), UnorderedElementsAre(resolver));
}

TEST_F(BypassRouteNotesTest, loseWhatIsNoRoute)
{
    m_notes.add(resolver);
    const wchar_t *broken[] = {
        L"",
        L"8.8.8.8",
        L"8.8.8.8 192.0.2.1",
        L"8.8.8.8 192.0.2.1 x",
        L"8.8.8.8 192.0.2.1 -1",
        L"8.8.8.8 192.0.2.1 12 13",
        L"8.8.8.8  192.0.2.1 12",
        L"8.8.8.8 192.0.2.1 012",
        L"8.8.8.256 192.0.2.1 12",
        L"0.0.0.0 192.0.2.1 12",
        L"8.8.8.8 gateway 12",
        L"8.8.8.8 192.0.2.1 4294967296",
    };
    for (const wchar_t *name : broken)
        write(name);
    EXPECT_THAT(m_notes.routes(), UnorderedElementsAre(resolver));
    EXPECT_TRUE(has(L"8.8.8.8 192.0.2.1 12"));
    for (const wchar_t *name : broken)
        EXPECT_FALSE(has(name)) << QString::fromWCharArray(name).toStdString();
}

TEST_F(BypassRouteNotesTest, areNotTakenWithoutAService)
{
    const std::wstring missing = m_key.path + L" that is not there";
    const BypassRouteNotes notes(missing);
    notes.add(resolver);
    EXPECT_EQ(m_log.lines(), QStringList{"DEBUG Bypass route is not noted: \"8.8.8.8\" error: 2"});
    RegistryKey key;
    EXPECT_EQ(RegOpenKeyExW(HKEY_LOCAL_MACHINE, missing.c_str(), 0, KEY_READ, key.out()), ERROR_FILE_NOT_FOUND);
    EXPECT_THAT(notes.routes(), IsEmpty());
    notes.remove(resolver);
    EXPECT_EQ(m_log.lines().size(), 1) << "there was nothing";
}

TEST_F(BypassRouteNotesTest, areOfNoConsequenceWhereTheRegistryRefuses)
{
    m_notes.add(resolver);
    {
        const ImportRedirection<IMPORT(RegOpenKeyExW)> open([](auto...) -> LSTATUS { return ERROR_ACCESS_DENIED; });
        m_notes.add(onLink);
        m_notes.remove(resolver);
        EXPECT_THAT(m_notes.routes(), IsEmpty());
    }
    {
        const ImportRedirection<IMPORT(RegDeleteValueW)> erase(
            [](auto...) -> LSTATUS { return ERROR_ACCESS_DENIED; });
        m_notes.remove(resolver);
    }
    EXPECT_EQ(m_log.lines(), (QStringList{
                                 "DEBUG Bypass route is not noted: \"1.1.1.1\" error: 5",
                                 "DEBUG Note of a bypass route stays: \"8.8.8.8\" error: 5",
                                 "DEBUG Notes of bypass routes cannot be read, error: 5",
                                 "DEBUG Note of a bypass route stays: \"8.8.8.8\" error: 5",
                             }));
    EXPECT_THAT(m_notes.routes(), UnorderedElementsAre(resolver));
}

} // namespace
} // namespace ruvo
