// Where a process of ours takes DLLs from.

#include "app/process_hardening.h"

#include "windows/support/import_redirection.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <vector>

namespace ruvo {
namespace {

using test::ImportRedirection;

struct Hardening
{
    std::vector<DWORD> directories;
    std::vector<PROCESS_MITIGATION_POLICY> policies;
    PROCESS_MITIGATION_IMAGE_LOAD_POLICY images{};
};

/// What hardenProcess asks for. Windows hears nothing of it, or the tests after this one would run hardened.
Hardening hardened(BOOL answer)
{
    Hardening asked;
    const ImportRedirection<IMPORT(SetDefaultDllDirectories)> directories([&](DWORD flags) {
        asked.directories.push_back(flags);
        return answer;
    });
    const ImportRedirection<IMPORT(SetProcessMitigationPolicy)> policies(
        [&](PROCESS_MITIGATION_POLICY policy, void *content, SIZE_T size) {
            asked.policies.push_back(policy);
            EXPECT_EQ(size, sizeof(asked.images));
            asked.images = *static_cast<PROCESS_MITIGATION_IMAGE_LOAD_POLICY *>(content);
            return answer;
        });
    hardenProcess();
    return asked;
}

TEST(ProcessHardening, looksForDllsInSystem32Only)
{
    EXPECT_EQ(hardened(TRUE).directories, std::vector<DWORD>{LOAD_LIBRARY_SEARCH_SYSTEM32});
}

TEST(ProcessHardening, takesNoImagesOfOtherMachinesAndOfLowIntegrity)
{
    const Hardening asked = hardened(TRUE);
    // This one alone: that for extension points takes layered Winsock providers away.
    EXPECT_EQ(asked.policies, std::vector<PROCESS_MITIGATION_POLICY>{ProcessImageLoadPolicy});
    EXPECT_EQ(asked.images.Flags, 0x3u);
    EXPECT_EQ(asked.images.NoRemoteImages, 1u);
    EXPECT_EQ(asked.images.NoLowMandatoryLabelImages, 1u);
}

TEST(ProcessHardening, asksForEachThoughWindowsKnowsNoneOfThem)
{
    const Hardening asked = hardened(FALSE);
    EXPECT_EQ(asked.directories.size(), 1u);
    EXPECT_EQ(asked.policies.size(), 1u);
}

} // namespace
} // namespace ruvo
