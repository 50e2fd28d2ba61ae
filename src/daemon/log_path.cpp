#include "daemon/log_path.h"

#include <algorithm>
#include <array>

namespace ruvo {

namespace {

constexpr std::array<QStringView, 3> devicePrefixes = {u"\\\\.\\", u"\\\\?\\", u"\\??\\"};

} // namespace

bool namesADevice(const QString &path)
{
    QString native = path.first(std::min<qsizetype>(path.size(), 4));
    native.replace(u'/', u'\\');
    return std::ranges::any_of(devicePrefixes, [&](QStringView prefix) { return native.startsWith(prefix); });
}

} // namespace ruvo
