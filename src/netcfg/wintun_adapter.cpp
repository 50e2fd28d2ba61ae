#include "netcfg/wintun_adapter.h"

#include "common/log_category.h"
#include "io/precise_pause.h"
#include "netcfg/adapter_guid.h"
#include "netcfg/second_look.h"

#include <QString>

#include <cstring>
#include <utility>

namespace ruvo {

namespace {

using namespace std::chrono_literals;

constexpr int sendAttempts = 50;

QString guidText(const GUID &guid)
{
    wchar_t text[64];
    const int length = StringFromGUID2(guid, text, static_cast<int>(std::size(text)));
    return length > 0 ? QString::fromWCharArray(text) : QString();
}

} // namespace

WintunAdapter::WintunAdapter() : m_quitEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {}

WintunAdapter::~WintunAdapter()
{
    stopReading();
}

bool WintunAdapter::load(const std::wstring &libraryPath)
{
    return m_library.load(libraryPath);
}

bool WintunAdapter::createAdapter(const std::wstring &name, const std::wstring &tunnelType)
{
    if (!m_library.isLoaded()) {
        qCCritical(lcRuvod) << "Wintun not initialized";
        return false;
    }
    const QString printedName = QString::fromStdWString(name);
    const GUID guid = deterministicGuid(name);
    qCDebug(lcRuvod) << "Using deterministic GUID for adapter" << printedName << ":" << guidText(guid);

    m_adapter = {m_library.openAdapter(name.c_str()), {m_library.closeAdapter}};
    if (m_adapter) {
        qCDebug(lcRuvod) << "Opened existing Wintun adapter:" << printedName;
    } else {
        m_adapter = {m_library.createAdapter(name.c_str(), tunnelType.c_str(), &guid), {m_library.closeAdapter}};
        if (!m_adapter) {
            const DWORD error = GetLastError();
            qCCritical(lcRuvod) << "Failed to create adapter" << printedName << ":" << error;
            if (error == ERROR_ALREADY_EXISTS) {
                qCCritical(lcRuvod) << "  Hint: Delete orphaned adapter via Device Manager";
                qCCritical(lcRuvod) << "  Or run: pnputil /remove-device /deviceid \"ROOT\\WINTUN\\0000\"";
            }
            return false;
        }
        qCDebug(lcRuvod) << "Created new Wintun adapter:" << printedName;
    }

    m_library.getAdapterLuid(m_adapter.get(), &m_luid);
    const DWORD driver = m_library.getRunningDriverVersion();
    qCDebug(lcRuvod).nospace() << "Wintun v" << ((driver >> 16) & 0xFF) << "." << (driver & 0xFF) << " loaded";
    return true;
}

bool WintunAdapter::requireAdapter() const
{
    if (m_adapter)
        return true;
    qCWarning(lcRuvod) << "Adapter not created";
    return false;
}

bool WintunAdapter::startSession(std::uint32_t capacity)
{
    if (!requireAdapter())
        return false;
    m_session = {m_library.startSession(m_adapter.get(), capacity), {m_library.endSession}};
    if (!m_session) {
        const DWORD error = GetLastError();
        qCWarning(lcRuvod) << "Failed to start session:" << error;
        return false;
    }
    return true;
}

void WintunAdapter::endSession()
{
    m_session.reset();
}

void WintunAdapter::setPacketCallback(PacketCallback callback)
{
    m_packetCallback = std::move(callback);
}

void WintunAdapter::startReading()
{
    if (m_running)
        return;
    stopReading();
    ResetEvent(m_quitEvent.get());
    m_running = true;
    m_reading = true;
    try {
        m_readerThread = std::thread(&WintunAdapter::readPackets, this);
    } catch (...) {
        m_running = false;
        m_reading = false;
        throw;
    }
}

void WintunAdapter::stopReading()
{
    if (m_running.exchange(false))
        SetEvent(m_quitEvent.get());
    // Not only what was running: a reader that stopped itself could not join itself.
    if (m_readerThread.joinable())
        m_readerThread.join();
}

void WintunAdapter::readPackets()
{
    const HANDLE handles[] = {m_library.getReadWaitEvent(m_session.get()), m_quitEvent.get()};
    SecondLook secondLook;
    while (m_running) {
        DWORD size = 0;
        if (BYTE *packet = m_library.receivePacket(m_session.get(), &size)) {
            secondLook.tookPacket();
            if (m_packetCallback)
                m_packetCallback(packet, size);
            m_library.releaseReceivePacket(m_session.get(), packet);
            continue;
        }
        const DWORD error = GetLastError();
        if (error == ERROR_NO_MORE_ITEMS) {
            if (secondLook.looksAgain(steadyNow())) {
                YieldProcessor();
                continue;
            }
            if (WaitForMultipleObjects(2, handles, FALSE, INFINITE) != WAIT_OBJECT_0)
                break;
        } else {
            if (error != ERROR_HANDLE_EOF) // which is how a session ends
                qCWarning(lcRuvod) << "Packet read failed:" << error;
            break;
        }
    }
    m_reading = false;
}

bool WintunAdapter::sendPacket(const std::uint8_t *data, std::uint32_t size)
{
    std::uint8_t *packet = allocatePacket(size);
    if (!packet)
        return false;
    sendCopy(packet, data, size);
    return true;
}

bool WintunAdapter::trySendPacket(const std::uint8_t *data, std::uint32_t size)
{
    std::uint8_t *packet = tryAllocate(size).packet;
    if (!packet)
        return false;
    sendCopy(packet, data, size);
    return true;
}

void WintunAdapter::sendCopy(std::uint8_t *packet, const std::uint8_t *data, std::uint32_t size)
{
    std::memcpy(packet, data, size);
    sendAllocated(packet);
}

WintunAdapter::Allocation WintunAdapter::tryAllocate(std::uint32_t size)
{
    if (!m_session) {
        if (m_noSession.take())
            qCWarning(lcRuvod) << "[WINTUN-SEND] No session!";
        return {};
    }
    if (BYTE *packet = m_library.allocateSendPacket(m_session.get(), size))
        return {.packet = packet};
    const DWORD error = GetLastError();
    if (error == ERROR_BUFFER_OVERFLOW || error == ERROR_HANDLE_EOF)
        return {.isFull = true};
    if (m_allocationFailed.take())
        qCWarning(lcRuvod) << "Failed to allocate send packet:" << error;
    return {};
}

std::uint8_t *WintunAdapter::allocatePacket(std::uint32_t size)
{
    for (int attempt = 0;; ++attempt) {
        const Allocation allocation = tryAllocate(size);
        if (!allocation.isFull)
            return allocation.packet;
        if (attempt >= sendAttempts - 1) {
            if (m_ringFull.take()) {
                qCWarning(lcRuvod) << "[WINTUN] Send buffer full after" << sendAttempts
                                   << "retries, dropping packet size=" << size;
            }
            return nullptr;
        }
        if (attempt > 0) // the first time at once: the ring is drained quickly
            precisePause(attempt == 1 ? 1ms : 2ms);
    }
}

void WintunAdapter::sendAllocated(std::uint8_t *packet)
{
    m_library.sendPacket(m_session.get(), packet);
}

std::uint32_t WintunAdapter::interfaceIndex() const
{
    NET_IFINDEX index = 0;
    const DWORD error = ConvertInterfaceLuidToIndex(&m_luid, &index);
    if (error != NO_ERROR) {
        qCWarning(lcRuvod) << "Failed to convert LUID to interface index:" << error;
        return 0;
    }
    return index;
}

} // namespace ruvo
