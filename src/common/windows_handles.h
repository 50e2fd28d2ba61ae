#pragma once

// One owner for each kind of handle that several folders hold. What only netcfg/ holds has its owner there: adapter
// and session of Wintun in netcfg/wintun_handles.h, session and memory of the filtering engine in
// netcfg/filter_handles.h, references of COM in netcfg/com_handles.h, hash and its provider in
// netcfg/adapter_guid.cpp. Nothing but an owner closes a handle.
//
// Every owner is movable, not copyable, and closes what it holds when it goes; closing keeps the thread's last
// error, so that a failure can be reported after the handles of its step are gone.

// windows.h would bring the old Winsock, which does not go together with the new one.
#include "common/winsock_headers.h"

#include <winsvc.h>
#include <wtsapi32.h>

#include <memory>
#include <utility>

namespace ruvo {

/// Keeps GetLastError() as it was over a scope.
class LastErrorKeeper
{
public:
    LastErrorKeeper() : m_error(GetLastError()) {}
    ~LastErrorKeeper() { SetLastError(m_error); }
    LastErrorKeeper(const LastErrorKeeper &) = delete;
    LastErrorKeeper &operator=(const LastErrorKeeper &) = delete;

private:
    const DWORD m_error;
};

/// Owns a handle-like value. `Traits` names its type, the value that means "none", and how it is closed.
template<typename Traits>
class UniqueHandle
{
public:
    using Type = typename Traits::Type;

    UniqueHandle() = default;
    explicit UniqueHandle(Type value) : m_value(value) {}
    ~UniqueHandle() { reset(); }
    UniqueHandle(UniqueHandle &&other) noexcept : m_value(other.release()) {}
    UniqueHandle &operator=(UniqueHandle &&other) noexcept
    {
        reset(other.release());
        return *this;
    }

    Type get() const { return m_value; }
    explicit operator bool() const { return m_value != Traits::none(); }

    Type release() { return std::exchange(m_value, Traits::none()); }
    void reset(Type value = Traits::none())
    {
        const Type old = std::exchange(m_value, value);
        if (old != Traits::none() && old != value) {
            const LastErrorKeeper keeper;
            Traits::close(old);
        }
    }
    /// For functions that return a handle through a pointer. What was held is closed first.
    Type *out()
    {
        reset();
        return &m_value;
    }

private:
    Type m_value = Traits::none();
};

struct KernelHandleTraits
{
    using Type = HANDLE;
    static Type none() { return nullptr; }
    static void close(Type handle) { CloseHandle(handle); }
};
/// Events, threads, processes, tokens, pipes: null means none.
using KernelHandle = UniqueHandle<KernelHandleTraits>;

struct FileHandleTraits
{
    using Type = HANDLE;
    static Type none() { return INVALID_HANDLE_VALUE; }
    static void close(Type handle) { CloseHandle(handle); }
};
/// Files and snapshots: INVALID_HANDLE_VALUE means none.
using FileHandle = UniqueHandle<FileHandleTraits>;

struct ServiceHandleTraits
{
    using Type = SC_HANDLE;
    static Type none() { return nullptr; }
    static void close(Type handle) { CloseServiceHandle(handle); }
};
/// The service control manager, or a service.
using ServiceHandle = UniqueHandle<ServiceHandleTraits>;

struct SocketTraits
{
    using Type = SOCKET;
    static Type none() { return INVALID_SOCKET; }
    static void close(Type socket) { closesocket(socket); }
};
using Socket = UniqueHandle<SocketTraits>;

struct LibraryTraits
{
    using Type = HMODULE;
    static Type none() { return nullptr; }
    static void close(Type library) { FreeLibrary(library); }
};
/// A library loaded at run time.
using Library = UniqueHandle<LibraryTraits>;

struct RegistryKeyTraits
{
    using Type = HKEY;
    static Type none() { return nullptr; }
    static void close(Type key) { RegCloseKey(key); }
};
using RegistryKey = UniqueHandle<RegistryKeyTraits>;

struct LocalMemoryFree
{
    void operator()(void *memory) const
    {
        const LastErrorKeeper keeper;
        LocalFree(memory);
    }
};
/// What a function allocated with LocalAlloc, for example a security descriptor.
using LocalMemory = std::unique_ptr<void, LocalMemoryFree>;

struct WtsMemoryFree
{
    void operator()(void *memory) const
    {
        const LastErrorKeeper keeper;
        WTSFreeMemory(memory);
    }
};
/// What Terminal Services allocated.
template<typename T>
using WtsMemory = std::unique_ptr<T, WtsMemoryFree>;

} // namespace ruvo
