// Whatever a server sends: the answers are within their limits, of one name, and stand in the message; of a message
// that is cut off, the first of them are read.
//
// Input: the message.

#include "engine/dns_answers.h"
#include "fuzz_check.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;
using Answers = std::vector<ruvo::DnsAnswer>;

Answers parse(const Bytes &message, std::size_t size)
{
    // Of exactly this size: the sanitizer sees a read behind it.
    const Bytes part(message.begin(), message.begin() + static_cast<std::ptrdiff_t>(size));
    return ruvo::parseDnsAnswers(part);
}

Bytes addressBytes(const ruvo::DnsAnswer &answer)
{
    if (const auto *ipv6 = std::get_if<ruvo::Ipv6Bytes>(&answer.address))
        return Bytes(ipv6->begin(), ipv6->end());
    const std::uint32_t ipv4 = std::get<std::uint32_t>(answer.address);
    return {static_cast<std::uint8_t>(ipv4 >> 24), static_cast<std::uint8_t>(ipv4 >> 16),
            static_cast<std::uint8_t>(ipv4 >> 8), static_cast<std::uint8_t>(ipv4)};
}

/// The name as labels, which is how it has to stand right behind the header.
Bytes labelsOf(const std::string &name)
{
    Bytes bytes{0};
    std::size_t length = 0;
    for (const char c : name) {
        if (c == '.') {
            length = bytes.size();
            bytes.push_back(0);
        } else {
            bytes.push_back(static_cast<std::uint8_t>(c));
            ++bytes[length];
        }
    }
    bytes.push_back(0);
    return bytes;
}

void check(const ruvo::DnsAnswer &answer, const Bytes &message)
{
    constexpr std::ptrdiff_t headerSize = 12;
    FUZZ_CHECK(!answer.name.empty() && answer.name.size() <= 253);
    const Bytes labels = labelsOf(answer.name);
    FUZZ_CHECK(std::equal(labels.begin(), labels.end(), message.begin() + headerSize));
    FUZZ_CHECK(answer.timeToLive >= 60 && answer.timeToLive <= 86'400);
    const Bytes address = addressBytes(answer);
    FUZZ_CHECK(std::search(message.begin(), message.end(), address.begin(), address.end()) != message.end());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const Bytes message(data, data + size);
    const Answers answers = parse(message, size);
    FUZZ_CHECK(answers.size() <= 256);
    for (const ruvo::DnsAnswer &answer : answers)
        check(answer, message);

    const std::size_t step = size / 64 + 1;
    for (std::size_t cut = 0; cut < size; cut += step) {
        const Answers first = parse(message, cut);
        FUZZ_CHECK(first.size() <= answers.size());
        FUZZ_CHECK(std::equal(first.begin(), first.end(), answers.begin()));
    }
    return 0;
}
