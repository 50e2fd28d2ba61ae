#include "process/process_manager.h"

#include "common/log_category.h"
#include "process/managed_process.h"
#include "process/process_messages.h"
#include "process/process_specification.h"
#include "process/tun_companion.h"

#include <QEventLoop>
#include <QJsonArray>
#include <QPointer>

#include <utility>

namespace ruvo {

namespace {

using namespace std::chrono_literals;

constexpr auto flushInterval = 100ms;
constexpr auto staleSweepDelay = 1000ms;
constexpr auto dnsOverrideDelay = 100ms;
constexpr auto stopCheckInterval = 100ms;
constexpr int stopTimeout = 10000;  // ms
constexpr int stopAllMargin = 1000; // ms, for the children's own deadlines to pass first

/// The child that brings a TUN adapter of its own, and that adapter.
constexpr auto companionProcessId = QLatin1StringView("sing-box-tun");
constexpr auto companionAdapter = QLatin1StringView("ruvo-tun");

QJsonObject notFound(const QString &processId)
{
    return createErrorResponse("Process not found: " + processId);
}

} // namespace

ProcessManager::ProcessManager(QObject *parent) : QObject(parent), m_tunCompanion(new TunCompanion(this))
{
    connect(&m_flushTimer, &QTimer::timeout, this, &ProcessManager::flushOutputBuffers);
    m_flushTimer.start(flushInterval);
    QTimer::singleShot(staleSweepDelay, this, &ProcessManager::cleanupStaleProcesses);
}

ProcessManager::~ProcessManager()
{
    for (ManagedProcess *process : std::as_const(m_processes))
        process->deleteLater();
}

QJsonObject ProcessManager::startProcess(const QJsonObject &spec)
{
    if (const std::optional<QString> problem = validateProcessSpec(spec))
        return createErrorResponse(*problem);
    const QString processId = spec["process-id"].toString();

    if (const ManagedProcess *existing = m_processes.value(processId)) {
        if (existing->isRunning())
            return createErrorResponse("Process already exists: " + processId);
        qCWarning(lcRuvod) << "[ProcessManager] Found stale process entry for" << processId
                           << "- state:" << QProcess::ProcessState(existing->info().state)
                           << "- cleaning up before restart";
        removeProcess(processId);
    }
    if (processId == companionProcessId)
        m_tunCompanion->cleanupTunInterface(companionAdapter);

    auto *process = new ManagedProcess(processId, this);
    connectProcess(process, processId);
    if (!process->start(spec)) {
        process->deleteLater();
        return createErrorResponse("Failed to start process: " + processId);
    }
    m_processes.insert(processId, process);
    if (const std::optional<TunDnsOverride> dns = tunDnsOverride(spec)) {
        const auto isWanted = [guard = QPointer(process)] { return guard && guard->isAlive(); };
        QTimer::singleShot(dnsOverrideDelay, m_tunCompanion, [companion = m_tunCompanion, dns = *dns, isWanted] {
            if (isWanted())
                companion->configureInterfaceDns(dns.address, dns.interfaceName, isWanted);
        });
    }
    return createStatusResponse("started", "Process started successfully");
}

// What an object says that is not (or no longer) the registered one of its id is ignored: it belongs to an entry
// that was replaced.
void ProcessManager::connectProcess(ManagedProcess *process, const QString &processId)
{
    const auto isRegistered = [this, process, processId] { return m_processes.value(processId) == process; };
    // Comes while the process is being started, before it is registered.
    connect(process, &ManagedProcess::processStarted, this, &ProcessManager::onProcessStarted);
    connect(process, &ManagedProcess::processFinished, this, [=, this](const QString &id, int exitCode) {
        if (isRegistered())
            onProcessFinished(id, exitCode);
    });
    connect(process, &ManagedProcess::processError, this, [=, this](const QString &id, const QString &error) {
        if (isRegistered())
            onProcessError(id, error);
    });
    connect(process, &ManagedProcess::stdoutReady, this, [=, this](const QString &id, const QByteArray &data) {
        if (isRegistered())
            onProcessStdout(id, data);
    });
    connect(process, &ManagedProcess::stderrReady, this, [=, this](const QString &id, const QByteArray &data) {
        if (isRegistered())
            onProcessStderr(id, data);
    });
}

void ProcessManager::removeProcess(const QString &processId)
{
    if (ManagedProcess *process = m_processes.take(processId)) {
        process->retire();
        process->deleteLater();
    }
    m_outputBuffers.remove(processId);
}

QJsonObject ProcessManager::stopProcess(const QString &processId)
{
    ManagedProcess *process = m_processes.value(processId);
    if (!process) {
        qCWarning(lcRuvod) << "[ProcessManager] Process not found:" << processId;
        return notFound(processId);
    }
    process->stop(stopTimeout);
    return createStatusResponse("stopping", "Process stop requested");
}

QJsonObject ProcessManager::killProcess(const QString &processId)
{
    ManagedProcess *process = m_processes.value(processId);
    if (!process)
        return notFound(processId);
    process->kill();
    return createStatusResponse("killed", "Process killed");
}

QJsonObject ProcessManager::restartProcess(const QString &processId)
{
    ManagedProcess *process = m_processes.value(processId);
    if (!process)
        return notFound(processId);
    process->stop(stopTimeout);
    return createStatusResponse("restarting", "Process restart initiated");
}

QJsonObject ProcessManager::getProcessStatus(const QString &processId) const
{
    const ManagedProcess *process = m_processes.value(processId);
    if (!process)
        return notFound(processId);
    const ProcessInfo info = process->info();
    QJsonObject response = createStatusResponse("success");
    response["process-id"] = processId;
    response["state"] = info.state;
    response["pid"] = info.pid;
    response["start-time"] = info.startTime.toString(Qt::ISODate);
    response["running"] = process->isRunning();
    return response;
}

QJsonObject ProcessManager::listProcesses() const
{
    QJsonArray processes;
    for (auto entry = m_processes.cbegin(); entry != m_processes.cend(); ++entry) {
        const ProcessInfo info = entry.value()->info();
        processes.append(QJsonObject{
            {"process-id", entry.key()},
            {"state", info.state},
            {"pid", info.pid},
            {"running", entry.value()->isRunning()},
        });
    }
    QJsonObject response = createStatusResponse("success");
    response["processes"] = processes;
    return response;
}

bool ProcessManager::writeToProcess(const QString &processId, const QByteArray &data)
{
    ManagedProcess *process = m_processes.value(processId);
    if (!process)
        return false;
    process->writeToStdin(data);
    return true;
}

void ProcessManager::stopAll(int timeoutMs)
{
    if (m_processes.isEmpty()) {
        qCInfo(lcRuvod) << "[ProcessManager] No processes to stop";
        return;
    }
    qCInfo(lcRuvod) << "[ProcessManager] Stopping all" << m_processes.size() << "managed processes...";
    const QHash<QString, ManagedProcess *> processes = m_processes;
    for (auto entry = processes.cbegin(); entry != processes.cend(); ++entry) {
        qCInfo(lcRuvod) << "[ProcessManager] Stopping process:" << entry.key();
        entry.value()->stop(timeoutMs);
    }
    waitForEnd(timeoutMs + stopAllMargin);
    // The check may see a child gone before its exit has been handled; no loop would run for that any more.
    const QList<ManagedProcess *> remaining = m_processes.values();
    for (ManagedProcess *process : remaining)
        process->settleExit();
    if (const int killed = killRemaining(); killed > 0) {
        qCWarning(lcRuvod) << "[ProcessManager] Force killed" << killed << "processes that didn't stop gracefully";
    } else {
        qCInfo(lcRuvod) << "[ProcessManager] All processes stopped gracefully";
    }
}

bool ProcessManager::isAnyRunning() const
{
    for (const ManagedProcess *process : m_processes) {
        if (process->isRunning())
            return true;
    }
    return false;
}

void ProcessManager::waitForEnd(int timeoutMs)
{
    QEventLoop loop;
    QTimer check;
    connect(
        &check, &QTimer::timeout, &loop,
        [this, &loop] {
            if (!isAnyRunning())
                loop.quit();
        },
        Qt::DirectConnection);
    check.start(stopCheckInterval);
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    loop.exec();
}

int ProcessManager::killRemaining()
{
    int killed = 0;
    const QHash<QString, ManagedProcess *> processes = m_processes;
    for (auto entry = processes.cbegin(); entry != processes.cend(); ++entry) {
        if (!entry.value()->isRunning())
            continue;
        qCWarning(lcRuvod) << "[ProcessManager] Process" << entry.key()
                           << "still running after timeout, force killing...";
        entry.value()->kill();
        ++killed;
    }
    return killed;
}

void ProcessManager::cleanupStaleProcesses()
{
    QStringList stale;
    for (auto entry = m_processes.cbegin(); entry != m_processes.cend(); ++entry) {
        if (entry.value()->isRunning())
            continue;
        qCWarning(lcRuvod) << "[ProcessManager] Found stale process entry on startup:" << entry.key()
                           << "- state:" << QProcess::ProcessState(entry.value()->info().state);
        stale.append(entry.key());
    }
    for (const QString &processId : std::as_const(stale)) {
        qCInfo(lcRuvod) << "[ProcessManager] Removing stale process entry:" << processId;
        removeProcess(processId);
    }
    if (!stale.isEmpty())
        qCInfo(lcRuvod) << "[ProcessManager] Cleaned up" << stale.size() << "stale process entries";
}

void ProcessManager::onProcessStarted(const QString &processId)
{
    emit processEvent(createEventObject(processId, "started"));
}

void ProcessManager::onProcessError(const QString &processId, const QString &error)
{
    emit processEvent(createEventObject(processId, "error", error));
}

void ProcessManager::onProcessStdout(const QString &processId, const QByteArray &data)
{
    m_outputBuffers.appendStdout(processId, data);
}

void ProcessManager::onProcessStderr(const QString &processId, const QByteArray &data)
{
    m_outputBuffers.appendStderr(processId, data);
}

void ProcessManager::flushOutputBuffers()
{
    publish(m_outputBuffers.flush());
}

void ProcessManager::onProcessFinished(const QString &processId, int exitCode)
{
    publish(m_outputBuffers.take(processId));
    if (processId == companionProcessId)
        m_tunCompanion->cleanupTunInterface(companionAdapter);
    qCDebug(lcRuvod) << "[ProcessManager::onProcessFinished] Process" << processId << "finished with exit code"
                     << exitCode << "- removing from m_processes (current size:" << m_processes.size() << ")";
    emit processEvent(createEventObject(processId, "finished", QString::number(exitCode)));
    if (m_processes.contains(processId)) {
        removeProcess(processId);
        qCDebug(lcRuvod) << "[ProcessManager::onProcessFinished] Process" << processId
                         << "removed from hash (new size:" << m_processes.size() << ")";
    }
}

void ProcessManager::publish(const QList<QJsonObject> &events)
{
    for (const QJsonObject &event : events)
        emit processEvent(event);
}

} // namespace ruvo
