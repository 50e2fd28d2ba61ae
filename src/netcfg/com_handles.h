#pragma once

// Owners of what COM and its automation types hand out.

#include "common/windows_handles.h"

#include <objbase.h>
#include <oleauto.h>

#include <string>

namespace ruvo {

template<typename T>
struct ComPointerTraits
{
    using Type = T *;
    static Type none() { return nullptr; }
    static void close(Type interfacePointer) { interfacePointer->Release(); }
};
/// One reference to a COM interface.
template<typename T>
using ComPointer = UniqueHandle<ComPointerTraits<T>>;

struct BasicStringTraits
{
    using Type = BSTR;
    static Type none() { return nullptr; }
    static void close(Type text) { SysFreeString(text); }
};
/// A text for COM. None where there was no memory for it.
using BasicString = UniqueHandle<BasicStringTraits>;

inline BasicString basicString(const std::wstring &text)
{
    return BasicString(SysAllocString(text.c_str()));
}

/// COM on this thread for as long as it lives: to be declared before every interface that is used meanwhile.
class ComUse
{
public:
    ComUse() = default;
    ~ComUse()
    {
        if (m_started)
            CoUninitialize();
    }
    ComUse(const ComUse &) = delete;
    ComUse &operator=(const ComUse &) = delete;

    /// Once. A thread that is in a multithreaded apartment already can use COM as it is: that is no failure, and
    /// leaves nothing to undo.
    HRESULT start()
    {
        const HRESULT result = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
        m_started = SUCCEEDED(result);
        return result == RPC_E_CHANGED_MODE ? S_FALSE : result;
    }

private:
    bool m_started = false;
};

} // namespace ruvo
