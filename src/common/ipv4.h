#pragma once

#include <QString>
#include <QStringView>

#include <cstdint>

namespace ruvo {

/// Dotted decimal, most significant octet first. `ip` is in host order, as IPv4 addresses are everywhere in ruvod.
QString formatIpv4(std::uint32_t ip);

/// The address that `text` names: exactly four decimal numbers from 0 to 255 with dots between, digits only (no
/// sign, no blanks; leading zeros do not make a number octal). Anything else gives 0, so 0 means "no address",
/// and "0.0.0.0" is none.
std::uint32_t parseIpv4(QStringView text);

} // namespace ruvo
