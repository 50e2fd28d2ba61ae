#include "windows/netcfg/fake_wintun.h"

#include "netcfg/wintun_api.h"

#include <QUuid>

#include <bit>
#include <cstring>

namespace ruvo::test {

namespace {

FakeWintun *s_fake = nullptr;

const auto library = reinterpret_cast<HMODULE>(0x7F0000);
const auto adapterHandle = reinterpret_cast<wintun::AdapterHandle>(0xADA);
const auto sessionHandle = reinterpret_cast<wintun::SessionHandle>(0x5E55);

QString hex(const void *handle)
{
    return QString::number(reinterpret_cast<quintptr>(handle), 16);
}

} // namespace

struct FakeWintun::Functions
{
    static wintun::AdapterHandle WINAPI createAdapter(LPCWSTR name, LPCWSTR type, const GUID *guid)
    {
        s_fake->note(QString("WintunCreateAdapter %1 %2 %3")
                         .arg(QString::fromWCharArray(name), QString::fromWCharArray(type), QUuid(*guid).toString()));
        SetLastError(s_fake->createError);
        return s_fake->createError == NO_ERROR ? adapterHandle : nullptr;
    }
    static wintun::AdapterHandle WINAPI openAdapter(LPCWSTR name)
    {
        s_fake->note("WintunOpenAdapter " + QString::fromWCharArray(name));
        SetLastError(s_fake->openError);
        return s_fake->openError == NO_ERROR ? adapterHandle : nullptr;
    }
    static void WINAPI closeAdapter(wintun::AdapterHandle adapter)
    {
        s_fake->note("WintunCloseAdapter " + hex(adapter));
    }
    static void WINAPI adapterLuid(wintun::AdapterHandle adapter, NET_LUID *filled)
    {
        s_fake->note("WintunGetAdapterLUID " + hex(adapter));
        filled->Value = luid;
    }
    static DWORD WINAPI runningDriverVersion()
    {
        s_fake->note("WintunGetRunningDriverVersion");
        return s_fake->driverVersion;
    }
    static wintun::SessionHandle WINAPI startSession(wintun::AdapterHandle adapter, DWORD capacity)
    {
        s_fake->note(QString("WintunStartSession %1 %2").arg(hex(adapter)).arg(capacity));
        SetLastError(s_fake->sessionError);
        return s_fake->sessionError == NO_ERROR ? sessionHandle : nullptr;
    }
    static void WINAPI endSession(wintun::SessionHandle session) { s_fake->note("WintunEndSession " + hex(session)); }
    static HANDLE WINAPI readWaitEvent(wintun::SessionHandle session)
    {
        s_fake->note("WintunGetReadWaitEvent " + hex(session));
        return s_fake->m_readEvent;
    }
    static BYTE *WINAPI receivePacket(wintun::SessionHandle, DWORD *size)
    {
        const std::lock_guard lock(s_fake->m_mutex);
        if (s_fake->m_incoming.empty() || s_fake->m_isHeld) {
            ++s_fake->emptyReceives;
            SetLastError(s_fake->m_emptyError);
            return nullptr;
        }
        s_fake->m_isHeld = true;
        QByteArray &packet = s_fake->m_incoming.front();
        *size = static_cast<DWORD>(packet.size());
        return reinterpret_cast<BYTE *>(packet.data());
    }
    static void WINAPI releaseReceivePacket(wintun::SessionHandle, const BYTE *packet)
    {
        const std::lock_guard lock(s_fake->m_mutex);
        QByteArray &held = s_fake->m_incoming.front();
        s_fake->m_released.append(held.constData() == reinterpret_cast<const char *>(packet) ? held
                                                                                             : "another packet");
        s_fake->m_incoming.pop_front();
        s_fake->m_isHeld = false;
    }
    static BYTE *WINAPI allocateSendPacket(wintun::SessionHandle session, DWORD size)
    {
        s_fake->note(QString("WintunAllocateSendPacket %1 %2").arg(hex(session)).arg(size));
        if (s_fake->allocateFailures != 0) {
            --s_fake->allocateFailures;
            SetLastError(s_fake->allocateError);
            return nullptr;
        }
        s_fake->m_sendSize = size;
        return s_fake->m_sendBuffer;
    }
    static void WINAPI sendPacket(wintun::SessionHandle session, const BYTE *packet)
    {
        s_fake->note("WintunSendPacket " + hex(session));
        const std::lock_guard lock(s_fake->m_mutex);
        s_fake->m_sent.append(QByteArray(reinterpret_cast<const char *>(packet), s_fake->m_sendSize));
    }
    static void unexpectedCall() { s_fake->note("a function that is not called"); }

    static FARPROC find(const char *name)
    {
        struct Export
        {
            const char *name;
            FARPROC function;
        };
        const auto pointer = [](auto *function) { return std::bit_cast<FARPROC>(function); };
        const Export exports[] = {
            {"WintunCreateAdapter", pointer(createAdapter)},
            {"WintunCloseAdapter", pointer(closeAdapter)},
            {"WintunOpenAdapter", pointer(openAdapter)},
            {"WintunGetAdapterLUID", pointer(adapterLuid)},
            {"WintunGetRunningDriverVersion", pointer(runningDriverVersion)},
            {"WintunDeleteDriver", pointer(unexpectedCall)},
            {"WintunSetLogger", pointer(unexpectedCall)},
            {"WintunStartSession", pointer(startSession)},
            {"WintunEndSession", pointer(endSession)},
            {"WintunGetReadWaitEvent", pointer(readWaitEvent)},
            {"WintunReceivePacket", pointer(receivePacket)},
            {"WintunReleaseReceivePacket", pointer(releaseReceivePacket)},
            {"WintunAllocateSendPacket", pointer(allocateSendPacket)},
            {"WintunSendPacket", pointer(sendPacket)},
        };
        for (const Export &one : exports) {
            if (std::strcmp(one.name, name) == 0 && s_fake->missing != name)
                return one.function;
        }
        return nullptr;
    }
};

FakeWintun::FakeWintun()
    : m_readEvent(CreateEventW(nullptr, FALSE, FALSE, nullptr))
    , m_load([this](LPCWSTR file, HANDLE reserved, DWORD flags) -> HMODULE {
        if (std::wcscmp(file, path) != 0)
            return m_load.real(file, reserved, flags);
        note(QString("LoadLibraryExW %1 %2").arg(reserved ? "reserved" : "null").arg(flags));
        SetLastError(loadError);
        return loadError == NO_ERROR ? library : nullptr;
    })
    , m_lookUp([this](HMODULE module, LPCSTR name) -> FARPROC {
        if (module != library)
            return m_lookUp.real(module, name);
        note(QString("GetProcAddress %1").arg(name));
        return Functions::find(name);
    })
    , m_free([this](HMODULE module) -> BOOL {
        if (module != library)
            return m_free.real(module);
        note("FreeLibrary");
        return TRUE;
    })
{
    s_fake = this;
}

FakeWintun::~FakeWintun()
{
    CloseHandle(m_readEvent);
    s_fake = nullptr;
}

void FakeWintun::deliver(const QByteArray &packet, std::size_t count)
{
    {
        const std::lock_guard lock(m_mutex);
        m_incoming.insert(m_incoming.end(), count, packet);
    }
    SetEvent(m_readEvent);
}

void FakeWintun::endReading(DWORD error)
{
    {
        const std::lock_guard lock(m_mutex);
        m_emptyError = error;
    }
    SetEvent(m_readEvent);
}

void FakeWintun::note(const QString &call)
{
    const std::lock_guard lock(m_mutex);
    m_calls.append(call);
}

QStringList FakeWintun::calls() const
{
    const std::lock_guard lock(m_mutex);
    return m_calls;
}

void FakeWintun::clear()
{
    const std::lock_guard lock(m_mutex);
    m_calls.clear();
}

QByteArrayList FakeWintun::sent() const
{
    const std::lock_guard lock(m_mutex);
    return m_sent;
}

QByteArrayList FakeWintun::released() const
{
    const std::lock_guard lock(m_mutex);
    return m_released;
}

} // namespace ruvo::test
