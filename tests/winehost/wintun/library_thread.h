#pragma once

#include "common/windows_handles.h"

#include <functional>

namespace ruvo::winehost {

/// A thread of this DLL's own, which keeps it loaded: a program that frees the DLL before it ends its session would
/// otherwise have the thread's code taken away, or wait for ever for a thread that needs the loader's lock.
class LibraryThread
{
public:
    /// Check isRunning() first. `work` has to come to its end before this is destroyed, or in answer to what its
    /// owner does then: the destructor waits for it.
    explicit LibraryThread(std::function<void()> work);
    ~LibraryThread();
    LibraryThread(const LibraryThread &) = delete;
    LibraryThread &operator=(const LibraryThread &) = delete;

    bool isRunning() const { return static_cast<bool>(m_thread); }

private:
    static DWORD WINAPI run(void *thread);

    const std::function<void()> m_work;
    KernelHandle m_thread;
};

} // namespace ruvo::winehost
