#include "windows/support/import_redirection.h"

#include <gtest/gtest.h>

#include <windows.h>

#include <memory>
#include <stdexcept>
#include <thread>

namespace ruvo::test {
namespace {

using TickRedirection = ImportRedirection<IMPORT(GetTickCount)>;

TEST(ImportRedirection, answersForTheFunctionWhileItLives)
{
    {
        const TickRedirection ticks([] { return DWORD{7}; });
        EXPECT_EQ(GetTickCount(), 7u);
    }
    EXPECT_NE(GetTickCount(), 7u);
}

TEST(ImportRedirection, forwardsToTheRealFunction)
{
    int calls = 0;
    const ImportRedirection<IMPORT(GetModuleHandleW)> module([&](LPCWSTR name) {
        ++calls;
        return module.real(name);
    });
    EXPECT_EQ(GetModuleHandleW(L"kernel32.dll"), GetModuleHandleA("kernel32.dll"));
    EXPECT_EQ(calls, 1);
}

TEST(ImportRedirection, answersOtherThreadsToo)
{
    const TickRedirection ticks([] { return DWORD{7}; });
    DWORD seen = 0;
    std::thread([&seen] { seen = GetTickCount(); }).join();
    EXPECT_EQ(seen, 7u);
}

TEST(ImportRedirection, stacksAndGivesBackWhatWasThereBefore)
{
    const TickRedirection outer([] { return DWORD{7}; });
    {
        const TickRedirection inner([&inner] { return inner.real() + 1; });
        EXPECT_EQ(GetTickCount(), 8u);
        EXPECT_EQ(TickRedirection::current()(), 8u);
    }
    EXPECT_EQ(GetTickCount(), 7u);
}

TEST(ImportRedirection, refusesAFunctionThatIsNotImported)
{
    using Missing = Import<DWORD(), "NoFunctionHasThisName">;
    EXPECT_THROW(ImportRedirection<Missing>([] { return DWORD{0}; }), std::runtime_error);
}

} // namespace
} // namespace ruvo::test
