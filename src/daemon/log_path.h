#pragma once

#include <QString>

namespace ruvo {

/// Whether Windows would take `path` for the name of a device: "\\.\", "\\?\" or "\??\", with either slash. Such a
/// name may be our own pipe, where every line would be a client that connects, which is worth a line.
bool namesADevice(const QString &path);

} // namespace ruvo
