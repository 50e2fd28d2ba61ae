#pragma once

#include <QHash>
#include <QString>
#include <QStringList>

#include <optional>

namespace ruvo {

/// Which client each supervised process belongs to: its events go there, and it ends when that client goes.
class ProcessOwnership
{
public:
    /// Replaces an earlier owner.
    void setOwner(const QString &processId, const QString &clientId) { m_owners.insert(processId, clientId); }
    std::optional<QString> owner(const QString &processId) const;
    void remove(const QString &processId) { m_owners.remove(processId); }
    QStringList ownedBy(const QString &clientId) const { return m_owners.keys(clientId); }

private:
    QHash<QString, QString> m_owners;
};

} // namespace ruvo
