#include "common/windows_handles.h"

#include "windows/support/call_journal.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <type_traits>
#include <utility>

namespace ruvo {
namespace {

using test::CallJournal;
using testing::ElementsAre;
using testing::IsEmpty;

HANDLE handle(std::uintptr_t value)
{
    return reinterpret_cast<HANDLE>(value);
}

/// Journals every function that closes something, each of which fails, so that it sets the last error.
class WindowsHandles : public testing::Test
{
protected:
    WindowsHandles()
    {
        m_journal.watch<IMPORT(CloseHandle)>();
        m_journal.watch<IMPORT(CloseServiceHandle)>();
        m_journal.watch<IMPORT(LocalFree)>();
        m_journal.watch<IMPORT(WTSFreeMemory)>([](PVOID) { SetLastError(ERROR_INVALID_PARAMETER); });
        for (const char *closer : {"CloseHandle", "CloseServiceHandle", "LocalFree"})
            m_journal.fail(closer, ERROR_INVALID_PARAMETER);
        SetLastError(ERROR_SERVICE_EXISTS);
    }

    CallJournal m_journal;
};

TEST_F(WindowsHandles, closeWhatTheyHoldInTheWayOfItsKindAndKeepTheLastError)
{
    {
        const KernelHandle kernel(handle(0x11));
        const FileHandle file(handle(0x22));
        const ServiceHandle service(reinterpret_cast<SC_HANDLE>(0x33));
        const LocalMemory local(handle(0x44));
        const WtsMemory<wchar_t> wts(reinterpret_cast<wchar_t *>(0x55));
        EXPECT_THAT(m_journal.lines(), IsEmpty());
    }
    EXPECT_THAT(m_journal.lines(), ElementsAre("WTSFreeMemory(0x55)", "LocalFree(0x44)", "CloseServiceHandle(0x33)",
                                               "CloseHandle(0x22)", "CloseHandle(0x11)"));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_SERVICE_EXISTS});
}

TEST_F(WindowsHandles, holdNothingAtFirstAndThenCloseNothing)
{
    {
        const KernelHandle kernel;
        const FileHandle file;
        const ServiceHandle service;
        EXPECT_FALSE(kernel);
        EXPECT_FALSE(file);
        EXPECT_FALSE(service);
        EXPECT_EQ(kernel.get(), nullptr);
        EXPECT_EQ(file.get(), INVALID_HANDLE_VALUE);
        const KernelHandle failedKernel(nullptr);
        const FileHandle failedFile(INVALID_HANDLE_VALUE);
        EXPECT_FALSE(failedKernel);
        EXPECT_FALSE(failedFile);
    }
    EXPECT_THAT(m_journal.lines(), IsEmpty());
}

TEST_F(WindowsHandles, passOnWhatTheyHoldWhenTheyMove)
{
    KernelHandle first(handle(0x11));
    {
        KernelHandle second(std::move(first));
        EXPECT_FALSE(first);
        EXPECT_EQ(second.get(), handle(0x11));

        KernelHandle third(handle(0x12));
        third = std::move(second);
        EXPECT_THAT(m_journal.lines(), ElementsAre("CloseHandle(0x12)"));
        EXPECT_EQ(third.get(), handle(0x11));
        first = std::move(third);
    }
    EXPECT_THAT(m_journal.lines(), ElementsAre("CloseHandle(0x12)"));
    EXPECT_EQ(first.get(), handle(0x11));
    static_assert(!std::is_copy_constructible_v<KernelHandle> && !std::is_copy_assignable_v<KernelHandle>);
}

TEST_F(WindowsHandles, surviveAMoveToThemselves)
{
    KernelHandle owner(handle(0x11));
    KernelHandle &alias = owner;
    owner = std::move(alias);
    EXPECT_EQ(owner.get(), handle(0x11));
    EXPECT_THAT(m_journal.lines(), IsEmpty());
}

TEST_F(WindowsHandles, closeTheOldOnReset)
{
    KernelHandle owner(handle(0x11));
    owner.reset(handle(0x12));
    EXPECT_EQ(owner.get(), handle(0x12));
    owner.reset();
    EXPECT_FALSE(owner);
    owner.reset();
    EXPECT_THAT(m_journal.lines(), ElementsAre("CloseHandle(0x11)", "CloseHandle(0x12)"));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_SERVICE_EXISTS});
}

TEST_F(WindowsHandles, doNotCloseWhatTheyReleased)
{
    {
        KernelHandle owner(handle(0x11));
        EXPECT_EQ(owner.release(), handle(0x11));
        EXPECT_FALSE(owner);
    }
    EXPECT_THAT(m_journal.lines(), IsEmpty());
}

TEST_F(WindowsHandles, takeAHandleThroughAPointerAndCloseTheOldBefore)
{
    {
        KernelHandle owner(handle(0x11));
        HANDLE *place = owner.out();
        EXPECT_THAT(m_journal.lines(), ElementsAre("CloseHandle(0x11)"));
        EXPECT_EQ(*place, nullptr);
        *place = handle(0x12);
        EXPECT_EQ(owner.get(), handle(0x12));
    }
    EXPECT_THAT(m_journal.lines(), ElementsAre("CloseHandle(0x11)", "CloseHandle(0x12)"));
}

} // namespace
} // namespace ruvo
