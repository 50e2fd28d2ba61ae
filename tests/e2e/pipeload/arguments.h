#pragma once

#include <QHash>
#include <QList>
#include <QString>
#include <QStringList>

#include <chrono>
#include <limits>
#include <stdexcept>

namespace ruvo::test {

/// A command line that cannot be followed; `what` says why.
struct UsageError : std::runtime_error
{
    using std::runtime_error::runtime_error;
};

/// The "--name value" pairs behind a subcommand. All of these throw UsageError.
class Arguments
{
public:
    explicit Arguments(const QStringList &words);

    qint64 number(const QString &name, qint64 absent, qint64 max = std::numeric_limits<qint64>::max());
    std::chrono::milliseconds milliseconds(const QString &name, qint64 absent);
    /// "1,2" or "1"; `absent` likewise, "" for none.
    QList<quint32> sessions(const QString &name, const QString &absent);
    quint32 session();

    /// Every option has been asked for: what is left was misspelt.
    void expectNoOther() const;

private:
    QHash<QString, QString> m_values;
};

} // namespace ruvo::test
