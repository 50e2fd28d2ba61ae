// Reads what a stranger has written: every read is checked against the end of the message, no compression pointer is
// followed, and each record takes bytes of its own. So the work is bounded by the message's size.

#include "engine/dns_answers.h"

#include <algorithm>
#include <optional>

namespace ruvo {

namespace {

using Message = std::span<const std::uint8_t>;

// RFC 1035 section 4.1.1.
constexpr std::size_t headerSize = 12;
constexpr std::size_t flagsOffset = 2;
constexpr std::uint16_t responseFlag = 0x8000;
constexpr std::size_t questionCountOffset = 4;
constexpr std::size_t answerCountOffset = 6;

constexpr std::size_t maxLabelLength = 63;
/// From here on a length is the first byte of a compression pointer (section 4.1.4).
constexpr std::uint8_t pointerMark = 192;
constexpr std::size_t pointerSize = 2;
constexpr std::size_t maxNameLength = 253; // section 2.3.4, as text

constexpr std::size_t questionFieldsSize = 4; // type and class
constexpr std::size_t recordFieldsSize = 10;  // type, class, time to live, length of the data

constexpr std::uint16_t internetClass = 1;
constexpr std::uint16_t addressType = 1;      // A
constexpr std::uint16_t ipv6AddressType = 28; // AAAA, RFC 3596

constexpr std::uint32_t minTimeToLive = 60;
constexpr std::uint32_t maxTimeToLive = 86'400;

constexpr std::size_t maxAnswers = 256;

std::uint16_t read16(Message message, std::size_t offset)
{
    return static_cast<std::uint16_t>(message[offset] << 8 | message[offset + 1]);
}

std::uint32_t read32(Message message, std::size_t offset)
{
    return std::uint32_t{read16(message, offset)} << 16 | read16(message, offset + 2);
}

/// Where the name at `offset` ends; nothing if it does not. A pointer ends it, and need not be followed: what answers
/// stand under does not matter.
std::optional<std::size_t> endOfName(Message message, std::size_t offset)
{
    while (offset < message.size()) {
        const std::uint8_t length = message[offset];
        if (length == 0)
            return offset + 1;
        if (length >= pointerMark)
            return offset + pointerSize <= message.size() ? std::optional(offset + pointerSize) : std::nullopt;
        if (length > maxLabelLength)
            return std::nullopt;
        offset += 1 + length;
    }
    return std::nullopt;
}

/// A dot within a label would make another name of it as text, a blank or a control character would break log lines
/// and what the proxy makes of the name. Such a name is none.
bool isLabelText(Message label)
{
    return std::ranges::all_of(label, [](std::uint8_t byte) { return byte > ' ' && byte < 0x7f && byte != '.'; });
}

/// The name that was asked for, its labels joined with dots; empty if it is none. `bytes` is the name as it stands in
/// the message. A pointer leads to a prior place (section 4.1.4), and before the first name there is only the header:
/// one here can only be a trap.
std::string textOfName(Message bytes)
{
    std::string name;
    for (std::size_t offset = 0; bytes[offset] != 0;) {
        const std::size_t length = bytes[offset];
        if (length >= pointerMark)
            return {};
        const Message label = bytes.subspan(offset + 1, length);
        if (!isLabelText(label))
            return {};
        if (!name.empty())
            name += '.';
        name.append(label.begin(), label.end());
        if (name.size() > maxNameLength)
            return {};
        offset += 1 + length;
    }
    return name;
}

/// A resource record without its name (section 4.1.3).
struct Record
{
    std::uint16_t type = 0;
    std::uint16_t recordClass = 0;
    std::uint32_t timeToLive = 0;
    Message data;
};

/// The record at `offset`, which is moved behind it; nothing if it is cut short.
std::optional<Record> readRecord(Message message, std::size_t &offset)
{
    const std::optional<std::size_t> fields = endOfName(message, offset);
    if (!fields || message.size() - *fields < recordFieldsSize)
        return std::nullopt;
    const std::size_t data = *fields + recordFieldsSize;
    const std::size_t dataSize = read16(message, *fields + 8);
    if (message.size() - data < dataSize)
        return std::nullopt;
    offset = data + dataSize;
    return Record{.type = read16(message, *fields),
                  .recordClass = read16(message, *fields + 2),
                  .timeToLive = read32(message, *fields + 4),
                  .data = message.subspan(data, dataSize)};
}

/// What address the record gives, if any.
std::optional<DnsAnswer> answerIn(const Record &record, const std::string &name)
{
    if (record.recordClass != internetClass)
        return std::nullopt;
    DnsAnswer answer{
        .name = name, .address = {}, .timeToLive = std::clamp(record.timeToLive, minTimeToLive, maxTimeToLive)};
    Ipv6Bytes ipv6{};
    if (record.type == addressType && record.data.size() == sizeof(std::uint32_t)) {
        answer.address = read32(record.data, 0);
    } else if (record.type == ipv6AddressType && record.data.size() == ipv6.size()) {
        std::ranges::copy(record.data, ipv6.begin());
        answer.address = ipv6;
    } else {
        return std::nullopt;
    }
    return answer;
}

} // namespace

std::vector<DnsAnswer> parseDnsAnswers(std::span<const std::uint8_t> message)
{
    if (message.size() < minDnsMessageSize || (read16(message, flagsOffset) & responseFlag) == 0)
        return {};
    // More than one question is an error (RFC 9619), and none leaves the addresses without a name.
    if (read16(message, questionCountOffset) != 1)
        return {};
    const std::optional<std::size_t> question = endOfName(message, headerSize);
    if (!question || message.size() - *question < questionFieldsSize
        || read16(message, *question + 2) != internetClass) {
        return {};
    }
    const std::string name = textOfName(message.subspan(headerSize, *question - headerSize));
    if (name.empty())
        return {};

    std::vector<DnsAnswer> answers;
    std::size_t offset = *question + questionFieldsSize;
    for (unsigned left = read16(message, answerCountOffset); left > 0 && answers.size() < maxAnswers; --left) {
        const std::optional<Record> record = readRecord(message, offset);
        if (!record)
            break;
        if (std::optional<DnsAnswer> answer = answerIn(*record, name))
            answers.push_back(std::move(*answer));
    }
    return answers;
}

} // namespace ruvo
