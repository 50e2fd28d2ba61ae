#pragma once

#include <QMutex>
#include <QString>
#include <QStringList>

namespace ruvo::test {

/// Takes Qt's messages for as long as it lives: "<LEVEL> <text>", debug lines of the daemon included.
/// One at a time; messages may come from any thread.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    QStringList lines() const;
    /// The lines that contain `text`, in order.
    QStringList linesWith(const QString &text) const;
    bool contains(const QString &text) const { return !linesWith(text).isEmpty(); }
    void clear();

private:
    static void handle(QtMsgType type, const QMessageLogContext &context, const QString &message);

    mutable QMutex m_mutex;
    QStringList m_lines;
    QtMessageHandler m_previous;
};

} // namespace ruvo::test
