// However a proxy's answers are cut into pieces, an exchange comes to the same end, has received the same bytes, and
// none beyond the answers.
//
// Input: what is asked for (0 to 3), a byte with the number of cuts, a byte for the length of each piece (0: 256
// bytes), then the proxy's stream.

#include "fuzz_check.h"
#include "socks5/socks_exchange.h"

#include <algorithm>
#include <cstdint>
#include <span>

namespace {

using namespace ruvo::socks5;
using State = SocksExchange::State;

struct End
{
    State state = State::Failed;
    ExchangeStep step = ExchangeStep::Greeting;
    bool isCutOff = false;
    Bytes reply;
    Bytes sent;
    std::size_t read = 0;
    bool operator==(const End &) const = default;
};

SocksRequest requestOf(std::uint8_t kind)
{
    switch (kind % 4) {
    case 0: return ruvo::Endpoint{0x5DB8D822, 443};
    case 1: return Ipv6Destination{.address = {0x20, 0x01}, .port = 443};
    case 2: return NamedDestination{"example.com", 443};
    default: return UdpAssociation();
    }
}

/// In pieces of these lengths, over and over; all that is asked for at a time without any.
End drive(const Bytes &request, std::span<const std::uint8_t> stream, std::span<const std::uint8_t> lengths)
{
    SocksExchange exchange{Bytes(request)};
    End end;
    std::size_t piece = 0;
    const auto pieceOf = [&](std::size_t most) {
        const std::size_t wanted = lengths.empty() ? most : lengths[piece++ % lengths.size()];
        return std::min(wanted == 0 ? 256 : wanted, most);
    };
    while (exchange.state() == State::Sends || exchange.state() == State::Receives) {
        const ByteView next = exchange.toSend();
        const std::span<std::uint8_t> room = exchange.room();
        FUZZ_CHECK(next.empty() != room.empty());
        if (!next.empty()) {
            const ByteView part = next.first(pieceOf(next.size()));
            end.sent.insert(end.sent.end(), part.begin(), part.end());
            exchange.sent(part.size());
        } else {
            FUZZ_CHECK(exchange.reply().size() + room.size() <= maxReplySize);
            const std::size_t count = std::min(pieceOf(room.size()), stream.size() - end.read);
            std::ranges::copy(stream.subspan(end.read, count), room.begin());
            end.read += count;
            exchange.received(count);
        }
    }
    FUZZ_CHECK(exchange.toSend().empty() && exchange.room().empty());
    end.state = exchange.state();
    end.step = exchange.step();
    end.isCutOff = end.state == State::Failed && exchange.failure().isCutOff;
    end.reply.assign(exchange.reply().begin(), exchange.reply().end());
    return end;
}

/// By a plain reading of the whole stream.
void checkEnd(const End &end, std::span<const std::uint8_t> stream)
{
    const bool isAccepted = stream.size() >= 2 && stream[0] == 5 && stream[1] == 0;
    if (!isAccepted) {
        FUZZ_CHECK(end.state == State::Failed && end.step == ExchangeStep::MethodReply);
        FUZZ_CHECK(end.isCutOff == (stream.size() < 2));
        FUZZ_CHECK(end.read == std::min<std::size_t>(2, stream.size()));
        return;
    }
    const std::span<const std::uint8_t> reply = stream.subspan(2);
    FUZZ_CHECK(end.step == ExchangeStep::Reply);
    FUZZ_CHECK(end.read == 2 + end.reply.size());
    FUZZ_CHECK(std::ranges::equal(end.reply, reply.first(end.reply.size())));
    if (reply.size() < 10) {
        FUZZ_CHECK(end.state == State::Failed && end.isCutOff && end.reply.size() == reply.size());
        return;
    }
    if (reply[0] != 5 || reply[1] != 0) {
        FUZZ_CHECK(end.state == State::Failed && !end.isCutOff && end.reply.size() == 10);
        return;
    }
    std::size_t size = 10;
    if (reply[3] == 4)
        size = 22;
    else if (reply[3] == 3)
        size = std::max<std::size_t>(10, 7u + reply[4]);
    if (reply.size() < size)
        FUZZ_CHECK(end.state == State::Failed && end.isCutOff && end.reply.size() == reply.size());
    else
        FUZZ_CHECK(end.state == State::Succeeded && end.reply.size() == size);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::span input(data, size);
    if (input.size() < 2)
        return 0;
    const std::size_t cuts = std::min<std::size_t>(input[1], input.size() - 2);
    const auto lengths = input.subspan(2, cuts);
    const auto stream = input.subspan(2 + cuts);
    const Bytes request = requestBytes(requestOf(input[0])).value();

    const End whole = drive(request, stream, {});
    checkEnd(whole, stream);
    End pieces = drive(request, stream, lengths);
    FUZZ_CHECK(pieces == whole);
    return 0;
}
