#pragma once

#include "process/launch_context.h"
#include "process/process_info.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringList>

#include <optional>
#include <utility>

namespace ruvo::test {

/// The scripted console program that the tests supervise. What its arguments do is told by `testchild.exe --help`.
QString testChildPath();

/// What launching testchild with `script` as its arguments takes.
ProcessInfo childInfo(const QStringList &script);

/// The process specification of a client's "start" for testchild; `more` adds keys or replaces them.
QJsonObject childSpec(const QString &processId, const QStringList &script, const QJsonObject &more = {});

/// Whether a process with this id runs.
bool isAlive(qint64 pid);

/// Waits, in the event loop, until no process with this id runs.
bool waitForDeath(qint64 pid);

/// One run of testchild, launched by the product and looked after by nobody but the test. Ends with this object.
class LaunchedChild
{
public:
    explicit LaunchedChild(const QStringList &script);
    /// Takes over what a test has launched itself.
    static LaunchedChild of(LaunchContextPointer launch) { return LaunchedChild(Launch{std::move(launch)}); }
    ~LaunchedChild();
    LaunchedChild(const LaunchedChild &) = delete;
    LaunchedChild &operator=(const LaunchedChild &) = delete;

    /// Null if it could not be launched.
    const LaunchContextPointer &launch() const { return m_launch; }
    LaunchContext *operator->() const { return m_launch.get(); }

    void terminate(UINT exitCode = 1);
    /// Its exit code; nothing if it does not end within 15 s.
    std::optional<DWORD> waitForExit();

    /// What it has written to its standard output so far, and the same for standard error.
    QByteArray output();
    QByteArray errors();
    /// Waits until `text` is in its output.
    bool waitForOutput(const QByteArray &text);
    /// Waits for the first fact of this name; empty after a time-out.
    QJsonObject waitForFact(const QString &name);
    /// All facts of this name that it has told so far.
    QList<QJsonObject> facts(const QString &name);

private:
    struct Launch
    {
        LaunchContextPointer pointer;
    };
    explicit LaunchedChild(Launch launch) : m_launch(std::move(launch.pointer)) {}

    LaunchContextPointer m_launch;
    QByteArray m_output;
    QByteArray m_errors;
};

/// The facts of this name in what testchild has written.
QList<QJsonObject> factsIn(const QByteArray &output, const QString &name);

} // namespace ruvo::test
