#pragma once

#include "ruvoctl/exit_status.h"
#include "ruvoctl/input_lines.h"

#include <QJsonObject>
#include <QObject>
#include <QTimer>

#include <chrono>

namespace ruvo {

class PipeClient;

/// Sends the lines of an input as messages and hands out every message that comes, until the input has ended
/// and a time to linger is over. Input comes in pieces; each is asked for, so that an input that is faster
/// than the daemon waits in its file or pipe and not in memory.
class MessageStream : public QObject
{
    Q_OBJECT

public:
    /// With more than this unsent, no further input is asked for.
    static constexpr qint64 maxUnsentBytes = 4 * 1024 * 1024;

    /// `timeout` bounds the sending of what is left when the input ends.
    MessageStream(PipeClient &client, std::chrono::milliseconds linger, std::chrono::milliseconds timeout,
                  QObject *parent = nullptr);

public slots:
    void takeInput(const QByteArray &bytes);
    void endInput();

signals:
    /// A piece of input is wanted: once for each piece after the first.
    void inputWanted();
    void output(const QByteArray &line);
    void problem(const QString &text);
    /// Once; `exitStatus` is one of ExitStatus.
    void finished(int exitStatus);

private:
    void sendLine(const QByteArray &line);
    void onBytesWritten();
    void askForInput();
    void lingerWhenSent();
    void fail(const QString &text);
    void finish(int exitStatus);

    PipeClient &m_client;
    const std::chrono::milliseconds m_linger;
    const std::chrono::milliseconds m_timeout;
    InputLines m_lines;
    QTimer m_lingerTimer;
    QTimer m_sendTimer;
    bool m_inputDue = false;
    bool m_inputEnded = false;
    bool m_finished = false;
    int m_exitStatus = ExitSuccess;
};

} // namespace ruvo
