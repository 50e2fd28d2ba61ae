#include "common/ipv4.h"

#include <QList>

#include <algorithm>
#include <optional>

namespace ruvo {

namespace {

std::optional<std::uint32_t> parseOctet(QStringView text)
{
    // Not QStringView::toUInt: it takes signs and blanks as well.
    const auto isDigit = [](QChar c) { return c >= u'0' && c <= u'9'; };
    if (text.isEmpty() || !std::all_of(text.begin(), text.end(), isDigit))
        return std::nullopt;
    bool inRange = false;
    const uint value = text.toUInt(&inRange);
    if (!inRange || value > 255)
        return std::nullopt;
    return value;
}

} // namespace

QString formatIpv4(std::uint32_t ip)
{
    return QString::asprintf("%u.%u.%u.%u", ip >> 24, (ip >> 16) & 0xff, (ip >> 8) & 0xff, ip & 0xff);
}

std::uint32_t parseIpv4(QStringView text)
{
    const QList<QStringView> fields = text.split(u'.');
    if (fields.size() != 4)
        return 0;
    std::uint32_t ip = 0;
    for (const QStringView field : fields) {
        const std::optional<std::uint32_t> octet = parseOctet(field);
        if (!octet)
            return 0;
        ip = ip << 8 | *octet;
    }
    return ip;
}

} // namespace ruvo
