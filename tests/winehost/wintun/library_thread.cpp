#include "wintun/library_thread.h"

namespace ruvo::winehost {

namespace {

/// This DLL, loaded once more with flags 0.
HMODULE library(LPCWSTR addressInIt, DWORD flags)
{
    HMODULE self = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | flags, addressInIt, &self);
    return self;
}

} // namespace

LibraryThread::LibraryThread(std::function<void()> work) : m_work(std::move(work))
{
    constexpr SIZE_T stackSize = 0x10000;
    const HMODULE self = library(reinterpret_cast<LPCWSTR>(&LibraryThread::run), 0);
    m_thread.reset(CreateThread(nullptr, stackSize, run, this, 0, nullptr));
    if (!m_thread)
        FreeLibrary(self);
}

LibraryThread::~LibraryThread()
{
    if (m_thread)
        WaitForSingleObject(m_thread.get(), INFINITE);
}

DWORD WINAPI LibraryThread::run(void *thread)
{
    static_cast<LibraryThread *>(thread)->m_work();
    FreeLibraryAndExitThread(
        library(reinterpret_cast<LPCWSTR>(&LibraryThread::run), GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT), 0);
}

} // namespace ruvo::winehost
