#include "engine/udp_datagrams.h"

#include <gtest/gtest.h>

#include <QByteArray>

#include <string>
#include <vector>

namespace ruvo {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes fromHex(const char *hex)
{
    const QByteArray bytes = QByteArray::fromHex(hex);
    return Bytes(bytes.begin(), bytes.end());
}

Bytes bytesOf(const std::string &text)
{
    return Bytes(text.begin(), text.end());
}

std::string textOf(std::span<const std::uint8_t> bytes)
{
    return std::string(bytes.begin(), bytes.end());
}

const UdpDestination ipv4Destination{.family = 4, .ip = 0x5DB8D822, .ip6 = {}, .port = 443};
const UdpDestination ipv6Destination{.family = 6, .ip = 0, .ip6 = {0x20, 0x01, 0x0d, 0xb8, 1, 2}, .port = 443};

TEST(StoredDatagramTest, holdsTypeAddressPortAndPayload)
{
    EXPECT_EQ(storeDatagram(ipv4Destination, bytesOf("ab")), fromHex("045db8d82201bb6162"));
    EXPECT_EQ(storeDatagram(ipv6Destination, bytesOf("ab")), fromHex("0620010db80102000000000000000000 0001bb6162"));
}

TEST(StoredDatagramTest, givesBackWhatWasStored)
{
    for (const UdpDestination &destination : {ipv4Destination, ipv6Destination}) {
        for (const std::string payload : {"", "x", "payload"}) {
            const StoredDatagram stored = storeDatagram(destination, bytesOf(payload));
            const auto read = readStoredDatagram(stored);
            ASSERT_TRUE(read);
            EXPECT_EQ(read->destination, destination);
            EXPECT_EQ(textOf(read->payload), payload);
        }
    }
}

TEST(StoredDatagramTest, isSkippedWhenItIsShorterThanItsAddress)
{
    Bytes ipv4 = storeDatagram(ipv4Destination, {});
    EXPECT_EQ(ipv4.size(), 7u);
    Bytes ipv6 = storeDatagram(ipv6Destination, {});
    EXPECT_EQ(ipv6.size(), 19u);
    for (Bytes *stored : {&ipv4, &ipv6}) {
        while (!stored->empty()) {
            stored->pop_back();
            EXPECT_FALSE(readStoredDatagram(Bytes(*stored))) << stored->size();
        }
    }
    EXPECT_FALSE(readStoredDatagram(Bytes(40, 5))) << "of no known type";
}

TEST(UdpDatagramQueueTest, keepsDatagramsInOrder)
{
    UdpDatagramQueue queue;
    queue.add(bytesOf("first"));
    queue.add(bytesOf(""));
    queue.add(bytesOf("third"));
    EXPECT_EQ(queue.take(), (std::deque<StoredDatagram>{bytesOf("first"), bytesOf(""), bytesOf("third")}));
    EXPECT_EQ(queue.size(), 0u);
    EXPECT_TRUE(queue.take().empty());
}

TEST(UdpDatagramQueueTest, keepsTheNewest64)
{
    UdpDatagramQueue queue;
    for (int i = 0; i < 64; ++i)
        queue.add(bytesOf(std::to_string(i)));
    EXPECT_EQ(queue.size(), 64u);
    for (int i = 64; i < 70; ++i)
        queue.add(bytesOf(std::to_string(i)));
    const std::deque<StoredDatagram> kept = queue.take();
    ASSERT_EQ(kept.size(), 64u);
    EXPECT_EQ(textOf(kept.front()), "6");
    EXPECT_EQ(textOf(kept.back()), "69");
}

TEST(RelayedDatagramTest, isReadBehindAHeaderOfEachAddressType)
{
    const struct
    {
        const char *bytes;
        std::uint16_t port;
        const char *payload;
    } cases[] = {
        {"00000001 08080808 0035 6162", 53, "ab"},
        {"00000003 0b 6578616d706c652e636f6d 01bb 6162", 443, "ab"},
        {"00000003 00 0035 616263", 53, "abc"}, // its header has 7 bytes, the datagram 10
        {"00000004 20010db8000000000000000000000001 0035 6162", 53, "ab"},
        {"ffff0701 08080808 0035 6162", 53, "ab"}, // reserved and fragment bytes do not matter
        {"00000001 08080808 0035", 53, ""},
    };
    for (const auto &[hex, port, payload] : cases) {
        const Bytes bytes = fromHex(hex);
        const auto read = readRelayedDatagram(bytes);
        ASSERT_TRUE(read) << hex;
        EXPECT_EQ(read->originPort, port) << hex;
        EXPECT_EQ(textOf(read->payload), payload) << hex;
    }
}

TEST(RelayedDatagramTest, isNoneWhenItsHeaderIsCutShortOrUnknown)
{
    for (const char *const hex :
         {"", "00", "00000001080808080 0", "000000030061626364", "00000003 0b 6578616d706c652e636f6d 01",
          "00000004 20010db800000000000000000000000100", "00000002 0808080800356162", "00000000 0808080800356162"}) {
        EXPECT_FALSE(readRelayedDatagram(fromHex(hex))) << hex;
    }
}

TEST(RelayedDatagramTest, mayHoldNamesFromPort53With13BytesAtLeast)
{
    const auto mayHoldNames = [](std::uint16_t port, std::size_t size) {
        const Bytes payload(size);
        return RelayedDatagram{port, payload}.mayHoldNames();
    };
    EXPECT_TRUE(mayHoldNames(53, 13));
    EXPECT_FALSE(mayHoldNames(53, 12));
    EXPECT_FALSE(mayHoldNames(54, 13));
    EXPECT_FALSE(mayHoldNames(53, 0));
}

} // namespace
} // namespace ruvo
