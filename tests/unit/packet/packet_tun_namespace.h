#pragma once

#include "packet/packet_parser.h"
#include "unit/packet/packet_reference.h"

#include <chrono>
#include <functional>

namespace ruvo::test {

/// An open file descriptor.
class Descriptor
{
public:
    explicit Descriptor(int value) : m_value(value) {}
    ~Descriptor();
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;
    int get() const { return m_value; }

private:
    const int m_value;
};

/// Puts the calling thread into a network namespace of its own, with a TUN device as its only way out: 10.6.7.1/30
/// on it, the default route through it. What the kernel sends there is read here, what is written here the kernel
/// receives. The namespace goes with the thread and its sockets. Throws std::runtime_error where the machine lacks
/// something (root, /dev/net/tun, namespaces).
class TunNamespace
{
public:
    static constexpr std::uint32_t address = 0x0a060701;
    /// The other address of the network, which nobody has.
    static constexpr std::uint32_t peer = 0x0a060702;

    TunNamespace();

    void inject(const Bytes &packet);
    /// The next packet from the kernel that `wanted` takes; others are dropped. Empty when none comes in time.
    Bytes next(const std::function<bool(const ParsedPacket &)> &wanted,
               std::chrono::milliseconds timeout = std::chrono::seconds(10));

private:
    const Descriptor m_tun;
};

} // namespace ruvo::test
