#pragma once

#include "process/output_collector.h"

#include <QHash>
#include <QJsonObject>
#include <QObject>
#include <QTimer>

namespace ruvo {

class ManagedProcess;
class TunCompanion;

/// The registry of supervised children: turns clients' requests into operations on them, and publishes what occurs
/// to them as events. Results and events are the JSON objects that clients get.
///
/// Service thread. A stop may block it for a second, a start or end of the TUN companion for 6 s.
class ProcessManager : public QObject
{
    Q_OBJECT

public:
    explicit ProcessManager(QObject *parent = nullptr);
    /// Asks children that still run to end (Ctrl+C) and lets go of them; stopAll, which waits and terminates, comes
    /// first.
    ~ProcessManager() override;

    QJsonObject startProcess(const QJsonObject &spec);
    QJsonObject stopProcess(const QString &processId);
    QJsonObject killProcess(const QString &processId);
    /// Only stops, and says "restarting": starting again is the client's business.
    QJsonObject restartProcess(const QString &processId);
    QJsonObject getProcessStatus(const QString &processId) const;
    QJsonObject listProcesses() const;
    /// False if the process is unknown. Otherwise the bytes go to its standard input if it runs.
    bool writeToProcess(const QString &processId, const QByteArray &data);
    /// Stops every child and waits, in a nested event loop, until they are gone; at most `timeoutMs` and a second.
    void stopAll(int timeoutMs);

signals:
    void processEvent(const QJsonObject &event);

public slots:
    void onProcessStarted(const QString &processId);
    void onProcessFinished(const QString &processId, int exitCode);
    void onProcessError(const QString &processId, const QString &error);
    void onProcessStdout(const QString &processId, const QByteArray &data);
    void onProcessStderr(const QString &processId, const QByteArray &data);
    void flushOutputBuffers();

private:
    void connectProcess(ManagedProcess *process, const QString &processId);
    void removeProcess(const QString &processId);
    void cleanupStaleProcesses();
    bool isAnyRunning() const;
    void waitForEnd(int timeoutMs);
    int killRemaining();
    void publish(const QList<QJsonObject> &events);

    QHash<QString, ManagedProcess *> m_processes;
    OutputCollector m_outputBuffers;
    QTimer m_flushTimer{this};
    TunCompanion *m_tunCompanion;
};

} // namespace ruvo
