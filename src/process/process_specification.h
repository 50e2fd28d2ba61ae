#pragma once

#include "process/process_info.h"

#include <QJsonObject>
#include <QString>

#include <optional>

namespace ruvo {

// The process specification: the JSON object of a client's "start".

/// What a companion's "tun-dns-override" asks for.
struct TunDnsOverride
{
    QString address;
    QString interfaceName;
};

/// The message of the first thing wrong with `spec`, or nothing.
std::optional<QString> validateProcessSpec(const QJsonObject &spec);

/// Sets the settings of `info` from `spec`; what is absent or of another type gets its default. What belongs to
/// the current run, and the count of restarts, stay as they are.
void parseProcessSpec(const QJsonObject &spec, ProcessInfo &info);

/// The override of `spec`; nothing unless both of its texts are there and not empty.
std::optional<TunDnsOverride> tunDnsOverride(const QJsonObject &spec);

/// The executable and the arguments, each between double quotes. Nothing inside is escaped: a quote or a
/// trailing backslash in an argument reaches the child's own parser as it is.
QString commandLine(const ProcessInfo &info);

} // namespace ruvo
