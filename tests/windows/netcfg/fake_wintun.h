#pragma once

#include "windows/support/import_redirection.h"

#include <QByteArray>
#include <QByteArrayList>
#include <QStringList>

#include <windows.h>

#include <atomic>
#include <deque>
#include <mutex>

namespace ruvo::test {

/// wintun.dll for the program that loads it from `path`: it answers as the test wants and writes every call down.
/// What the real thing over a TUN cannot be made to do at will: any error from any function, a ring that is full for
/// exactly so many attempts, a function that the library lacks. One at a time; its functions may be called from any
/// thread.
class FakeWintun
{
public:
    static constexpr wchar_t path[] = L"C:\\ruvod\\tun2\\wintun.dll";
    static constexpr quint64 luid = 0x0035000007000000;

    FakeWintun();
    ~FakeWintun();
    FakeWintun(const FakeWintun &) = delete;
    FakeWintun &operator=(const FakeWintun &) = delete;

    // Set before the calls that they are about.
    DWORD loadError = NO_ERROR;
    QByteArray missing; ///< a function that is not exported
    DWORD openError = ERROR_NOT_FOUND;
    DWORD createError = NO_ERROR;
    DWORD driverVersion = 0x0000000E;
    DWORD sessionError = NO_ERROR;
    DWORD allocateError = ERROR_BUFFER_OVERFLOW;
    /// So many attempts to allocate fail; a negative number: all of them.
    int allocateFailures = 0;

    /// A packet for the reader, or so many at once.
    void deliver(const QByteArray &packet, std::size_t count = 1);
    /// What the reader is told when there is no packet; ERROR_NO_MORE_ITEMS until then.
    void endReading(DWORD error);
    /// How often the reader looked and there was no packet.
    std::atomic<int> emptyReceives = 0;

    /// In order: the library's loading, what is looked up in it, its functions with their arguments, and that it is
    /// freed.
    QStringList calls() const;
    qsizetype count(const QString &call) const { return calls().count(call); }
    void clear();
    /// A line of the test's own among the calls, from any thread.
    void note(const QString &call);
    /// What was sent, and what the reader gave back.
    QByteArrayList sent() const;
    QByteArrayList released() const;
    /// The memory of the packet that was allocated last.
    const BYTE *allocated() const { return m_sendBuffer; }

private:
    struct Functions;
    friend struct Functions;

    mutable std::mutex m_mutex;
    QStringList m_calls;
    QByteArrayList m_sent;
    QByteArrayList m_released;
    std::deque<QByteArray> m_incoming; ///< the first is the one that the reader holds, if it holds one
    bool m_isHeld = false;
    DWORD m_emptyError = ERROR_NO_MORE_ITEMS;
    HANDLE m_readEvent;
    BYTE m_sendBuffer[0xFFFF] = {};
    DWORD m_sendSize = 0;

    const ImportRedirection<IMPORT(LoadLibraryExW)> m_load;
    const ImportRedirection<IMPORT(GetProcAddress)> m_lookUp;
    const ImportRedirection<IMPORT(FreeLibrary)> m_free;
};

} // namespace ruvo::test
