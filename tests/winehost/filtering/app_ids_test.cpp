#include "filtering/filtering_test.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>

namespace ruvo::test {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

std::wstring textOf(const FWP_BYTE_BLOB &blob)
{
    return {reinterpret_cast<const wchar_t *>(blob.data), blob.size / sizeof(wchar_t)};
}

} // namespace

TEST_F(FilteringTest, anAppIdIsThePathInSmallLettersWithItsZero)
{
    const std::filesystem::path folder = programFolder() / L"Some Folder";
    std::filesystem::create_directory(folder);
    std::ofstream(folder / L"Program.EXE") << "anything";
    FWP_BYTE_BLOB *id = nullptr;
    ASSERT_EQ(FwpmGetAppIdFromFileName0((folder / L"..\\Some Folder\\program.exe").c_str(), &id), DWORD{NO_ERROR});

    std::wstring rest = (folder / L"program.exe").wstring().substr(2);
    std::ranges::transform(rest, rest.begin(), [](wchar_t c) { return c < 128 ? std::tolower(c) : c; });
    EXPECT_EQ(textOf(*id), L"\\device\\harddiskvolume26" + rest + L'\0');
    EXPECT_THAT(journal("FwpmGetAppIdFromFileName0"),
                ElementsAre(HasSubstr(R"(\\some folder\\program.exe","block":)")));

    FwpmFreeMemory0(reinterpret_cast<void **>(&id));
    EXPECT_EQ(id, nullptr);
    FwpmFreeMemory0(reinterpret_cast<void **>(&id));
    EXPECT_EQ(journal("FwpmFreeMemory0").size(), 2U);
    std::filesystem::remove_all(folder);
}

TEST_F(FilteringTest, drivesAreVolumes)
{
    FWP_BYTE_BLOB *id = nullptr;
    ASSERT_EQ(FwpmGetAppIdFromFileName0(L"C:\\windows\\System32\\ntdll.dll", &id), DWORD{NO_ERROR});
    EXPECT_EQ(textOf(*id), std::wstring(L"\\device\\harddiskvolume3\\windows\\system32\\ntdll.dll") + L'\0');
    FwpmFreeMemory0(reinterpret_cast<void **>(&id));
}

TEST_F(FilteringTest, onlyFilesThatExistHaveAppIds)
{
    FWP_BYTE_BLOB *id = nullptr;
    EXPECT_EQ(FwpmGetAppIdFromFileName0((programFolder() / L"missing.exe").c_str(), &id),
              DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_EQ(FwpmGetAppIdFromFileName0((programFolder() / L"missing" / L"xray.exe").c_str(), &id),
              DWORD{ERROR_PATH_NOT_FOUND});
    EXPECT_EQ(FwpmGetAppIdFromFileName0(nullptr, &id), code(FWP_E_NULL_POINTER));
    EXPECT_EQ(id, nullptr);
}

} // namespace ruvo::test
