#pragma once

#include "common/capped_log.h"
#include "common/windows_handles.h"
#include "netcfg/wintun_handles.h"
#include "netcfg/wintun_library.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

namespace ruvo {

/// The tunnel's network adapter: one Wintun adapter, its session, and the thread that reads packets from it.
///
/// Set up and taken down by one thread. Packets are sent from any thread while a session lasts; the caller sees to it
/// that nobody sends any more when it ends. Every operation that fails logs why and returns false. Addresses are IPv4
/// in host order.
class WintunAdapter
{
public:
    /// Gets each packet on the reader thread, straight from the ring: `data` is gone when it returns.
    using PacketCallback = std::function<void(const std::uint8_t *data, std::uint32_t size)>;

    WintunAdapter();
    /// Takes down whatever is still up. The adapter is closed, not deleted.
    ~WintunAdapter();
    WintunAdapter(const WintunAdapter &) = delete;
    WintunAdapter &operator=(const WintunAdapter &) = delete;

    bool load(const std::wstring &libraryPath);
    /// Opens the adapter of this name, or creates it under the identity that its name gives.
    bool createAdapter(const std::wstring &name, const std::wstring &tunnelType);
    /// `capacity` of the ring in bytes: a power of two.
    bool startSession(std::uint32_t capacity);
    void endSession();

    void setPacketCallback(PacketCallback callback);
    /// Starts the reader thread, once. std::system_error if there can be no thread.
    void startReading();
    /// Not from the callback: std::system_error, as a thread cannot wait for itself. The reader ends all the same.
    void stopReading();
    /// Whether the reader thread still reads: it ends by itself when the adapter goes away.
    bool isReading() const { return m_reading; }

    /// Copies one packet into the ring. False as for allocatePacket.
    bool sendPacket(const std::uint8_t *data, std::uint32_t size);
    /// The same in one attempt, without a wait: for who keeps what there is no room for. False, in silence, while the
    /// ring is full or the session is ending.
    bool trySendPacket(const std::uint8_t *data, std::uint32_t size);
    /// Room in the ring for a packet that is written there. While the ring is full it tries again, for about 95 ms in
    /// all; then null. What was allocated has to be sent: the ring keeps the order of allocation.
    std::uint8_t *allocatePacket(std::uint32_t size);
    void sendAllocated(std::uint8_t *packet);

    std::uint64_t luid() const { return m_luid.Value; }
    /// 0 if there is none.
    std::uint32_t interfaceIndex() const;

    /// What Windows makes of the interface for IPv4.
    struct InterfaceState
    {
        std::uint32_t metric = 0;
        bool isMetricAutomatic = false;
        bool isForwarding = false;
    };
    /// Nothing, and nothing logged, if it cannot be read.
    std::optional<InterfaceState> interfaceState() const;

    // Settings of the interface; they belong to the adapter and go with it, except for DNS in the registry.
    bool setIpAddress(std::uint32_t address, std::uint8_t prefixLength);
    bool setGateway(std::uint32_t gateway);
    /// Also switches forwarding on and sets an MTU of 1500.
    bool setMetric(std::uint32_t metric);
    /// Dotted addresses; `secondary` may be empty.
    bool setDnsServers(const std::string &primary, const std::string &secondary);
    /// Two empty texts clear them.
    bool setIpv6DnsServers(const std::string &primary, const std::string &secondary);

private:
    /// What one attempt gives: a place in the ring, or none as the ring is full. Neither of them: it has failed.
    struct Allocation
    {
        std::uint8_t *packet = nullptr;
        bool isFull = false;
    };

    Allocation tryAllocate(std::uint32_t size);
    void sendCopy(std::uint8_t *packet, const std::uint8_t *data, std::uint32_t size);
    void readPackets();
    bool requireAdapter() const;

    // The order matters: what goes last comes first. The session ends, the adapter is closed, the library is
    // unloaded.
    PacketCallback m_packetCallback;
    const KernelHandle m_quitEvent;
    WintunLibrary m_library;
    WintunAdapterOwner m_adapter;
    WintunSessionOwner m_session;
    NET_LUID m_luid{};
    std::atomic<bool> m_running = false;
    std::atomic<bool> m_reading = false;
    std::thread m_readerThread;

    // Written for a packet each, so capped.
    CappedLog m_noSession{10, 1000};
    CappedLog m_allocationFailed{10, 1000};
    CappedLog m_ringFull{10, 1000};
};

} // namespace ruvo
