#include "daemon/process_ownership.h"

namespace ruvo {

std::optional<QString> ProcessOwnership::owner(const QString &processId) const
{
    const auto entry = m_owners.constFind(processId);
    if (entry == m_owners.cend())
        return std::nullopt;
    return entry.value();
}

} // namespace ruvo
