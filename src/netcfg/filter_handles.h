#pragma once

// Owners of what the Windows Filtering Platform hands out.

#include "common/windows_handles.h"

#include <fwpmu.h>

namespace ruvo {

struct FilterSessionTraits
{
    using Type = HANDLE;
    static Type none() { return nullptr; }
    static void close(Type session) { FwpmEngineClose0(session); }
};
/// A session with the filtering engine. Closing a dynamic one takes everything away that was added through it.
using FilterSession = UniqueHandle<FilterSessionTraits>;

template<typename T>
struct FilterMemoryTraits
{
    using Type = T *;
    static Type none() { return nullptr; }
    static void close(Type memory)
    {
        void *pointer = memory;
        FwpmFreeMemory0(&pointer);
    }
};
/// What the filtering engine allocated for an answer.
template<typename T>
using FilterMemory = UniqueHandle<FilterMemoryTraits<T>>;

/// A program as filters know it: made from its path by Windows.
using ProgramId = FilterMemory<FWP_BYTE_BLOB>;

} // namespace ruvo
