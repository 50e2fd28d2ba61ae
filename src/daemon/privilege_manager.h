#pragma once

#include <QObject>

namespace ruvo {

/// Whether the daemon runs with an elevated token. Only told to clients; nothing behaves differently.
class PrivilegeManager : public QObject
{
    Q_OBJECT

public:
    explicit PrivilegeManager(QObject *parent = nullptr);

    /// 1 if the process's token is elevated, 0 if not or if it cannot be read. Asked from the system each time.
    static qint32 privilegeLevel();

    /// As it was when the object was made.
    bool isElevated() const { return m_elevated; }

signals:
    // Part of the interface; nothing emits them.
    void elevationChanged(bool elevated);
    void elevationError(const QString &error);

private:
    const bool m_elevated;
};

} // namespace ruvo
