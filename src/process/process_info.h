#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QProcess>
#include <QString>
#include <QStringList>

namespace ruvo {

/// A Windows HANDLE, in code that knows no Windows.
using NativeHandle = void *;

/// What is known of a supervised process: its settings from its process specification, and its current run.
/// A plain record, copied out by value; the handles are borrowed from the launch.
struct ProcessInfo
{
    // From the process specification.
    QString processId;
    QString executable;
    QStringList arguments;
    QString workingDirectory; // empty: the daemon's own
    QJsonObject environment;  // kept only: the child inherits the daemon's
    QString privileges;       // kept only: the child runs with the daemon's token

    // The current run.
    int state = QProcess::NotRunning; // NotRunning or Running
    qint64 pid = -1;
    QDateTime startTime;

    // Restarts.
    bool autoRestart = false;
    int maxRestartAttempts = 3;
    int restartAttempts = 0; // in the life of the registry entry, not consecutive ones
    int restartDelayMs = 1000;

    quint32 sessionId = 0; // logged only: it does not change where the child runs

    NativeHandle processHandle = nullptr;
    NativeHandle threadHandle = nullptr;
    NativeHandle stdinWrite = nullptr;
    NativeHandle stdoutRead = nullptr;
    NativeHandle stderrRead = nullptr;
};

} // namespace ruvo
