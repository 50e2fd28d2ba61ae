#include "process/tun_companion.h"

#include "common/log_category.h"
#include "common/quit.h"
#include "common/windows_handles.h"
#include "netcfg/network_adapters.h"

#include <QCoreApplication>
#include <QProcess>
#include <QThread>

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>

namespace ruvo {

namespace {

constexpr unsigned long pollInterval = 200; // ms
constexpr int pnputilTimeout = 5000;        // ms
constexpr int pnputilKillTimeout = 1000;    // ms

/// Kills a tool that did not end in time. One that does not even end by that is left behind until it does: the
/// object of a process that runs would wait for it in its destructor, for half a minute.
void giveUp(std::unique_ptr<QProcess> tool)
{
    tool->kill();
    if (tool->state() == QProcess::NotRunning || tool->waitForFinished(pnputilKillTimeout))
        return;
    qCWarning(lcRuvod) << "[ProcessManager] pnputil.exe did not end within" << pnputilKillTimeout
                       << "ms of its kill, leaving it behind";
    QProcess *const leftBehind = tool.release();
    QObject::connect(leftBehind, &QProcess::finished, leftBehind, &QObject::deleteLater);
}

/// What went wrong with the removal (an empty text if the tool does not say), or nothing. A tool that cannot be
/// started or does not end is a failure too.
std::optional<QString> runPnputil(const QString &bracedGuid)
{
    auto pnputil = std::make_unique<QProcess>();
    pnputil->setProgram(qEnvironmentVariable("WINDIR", "C:\\Windows") + "\\System32\\pnputil.exe");
    pnputil->setArguments({"/remove-device", "SWD\\Wintun\\" + bracedGuid});
    pnputil->start(QIODevice::ReadWrite);
    if (!pnputil->waitForFinished(pnputilTimeout)) {
        const QString error = pnputil->errorString();
        giveUp(std::move(pnputil));
        return error;
    }
    if (pnputil->exitStatus() == QProcess::NormalExit && pnputil->exitCode() == 0)
        return std::nullopt;
    return QString::fromLocal8Bit(pnputil->readAllStandardError()).trimmed();
}

void writeNameServer(const QString &guid, const QString &address, const QString &interfaceName)
{
    const QString path =
        QStringLiteral(R"(SYSTEM\CurrentControlSet\Services\Tcpip\Parameters\Interfaces\{%1})").arg(guid);
    RegistryKey key;
    LSTATUS result = RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.toStdWString().c_str(), 0, KEY_SET_VALUE, key.out());
    if (result != ERROR_SUCCESS) {
        qCWarning(lcRuvod) << "[ProcessManager] Failed to open registry key:" << result;
        return;
    }
    const std::wstring value = address.toStdWString();
    result = RegSetValueExW(key.get(), L"NameServer", 0, REG_SZ, reinterpret_cast<const BYTE *>(value.c_str()),
                            static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
    if (result != ERROR_SUCCESS) {
        qCWarning(lcRuvod) << "[ProcessManager] Failed to set NameServer registry value:" << result;
        return;
    }
    qCInfo(lcRuvod) << "[ProcessManager] DNS server set successfully to" << address << "for interface"
                    << interfaceName;
}

} // namespace

TunCompanion::TunCompanion(QObject *parent, int dnsTimeoutMs) : QObject(parent), m_dnsTimeout(dnsTimeoutMs) {}

QString TunCompanion::getInterfaceGuid(const QString &interfaceName)
{
    const NetworkAdapters adapters;
    switch (adapters.failure()) {
    case NetworkAdapters::Failure::Size:
        qCWarning(lcRuvod) << "[ProcessManager] GetAdaptersAddresses failed to get buffer size:" << adapters.error();
        return QString();
    case NetworkAdapters::Failure::List:
        qCWarning(lcRuvod) << "[ProcessManager] GetAdaptersAddresses failed:" << adapters.error();
        return QString();
    case NetworkAdapters::Failure::None: break;
    }

    const IP_ADAPTER_ADDRESSES *adapter = adapters.findByName(interfaceName);
    if (!adapter) {
        qCDebug(lcRuvod) << "[ProcessManager] Interface not found:" << interfaceName;
        return QString();
    }
    QString guid = QString::fromLatin1(adapter->AdapterName);
    if (guid.startsWith(u'{') && guid.endsWith(u'}'))
        guid = guid.mid(1, guid.size() - 2);
    qCDebug(lcRuvod) << "[ProcessManager] Found interface GUID:" << guid;
    return guid;
}

void TunCompanion::cleanupTunInterface(const QString &adapterName)
{
    QString guid = getInterfaceGuid(adapterName);
    if (guid.isEmpty()) {
        qCDebug(lcRuvod) << "[ProcessManager] No TUN interface found to cleanup for:" << adapterName;
        return;
    }
    if (!guid.startsWith(u'{'))
        guid = u'{' + guid + u'}';
    qCInfo(lcRuvod) << "[ProcessManager] Cleaning up TUN interface with GUID:" << guid;
    if (const std::optional<QString> error = runPnputil(guid))
        qCWarning(lcRuvod) << "[ProcessManager] Failed to remove TUN interface:" << *error;
    else
        qCInfo(lcRuvod) << "[ProcessManager] TUN interface removed successfully";
}

bool TunCompanion::waitForInterfaceUp(const QString &interfaceName, int timeoutMs)
{
    return wait(interfaceName, timeoutMs, [] { return false; }) == Outcome::Up;
}

TunCompanion::Outcome TunCompanion::wait(const QString &interfaceName, int timeoutMs,
                                         const std::function<bool()> &isOver)
{
    qCInfo(lcRuvod) << "[ProcessManager] Waiting for interface" << interfaceName << "to be UP (max" << timeoutMs
                    << "ms)";
    QElapsedTimer elapsed;
    elapsed.start();
    // However little time there is, it is enough for one look.
    for (bool looked = false; timeoutMs > 0 && (!looked || elapsed.elapsed() < timeoutMs); looked = true) {
        if (quitRequested() || isOver())
            return Outcome::GivenUp;
        const NetworkAdapters adapters;
        if (adapters.failure() == NetworkAdapters::Failure::Size) {
            QThread::msleep(pollInterval);
            QCoreApplication::processEvents();
            continue;
        }
        const IP_ADAPTER_ADDRESSES *adapter = adapters.findByName(interfaceName);
        if (adapter && adapter->OperStatus == IfOperStatusUp) {
            qCInfo(lcRuvod) << "[ProcessManager] Interface" << interfaceName << "is UP after" << elapsed.elapsed()
                            << "ms";
            return Outcome::Up;
        }
        QCoreApplication::processEvents();
        QThread::msleep(pollInterval);
    }
    if (quitRequested() || isOver()) // of no interest any more, and not timed out
        return Outcome::GivenUp;
    qCWarning(lcRuvod) << "[ProcessManager] Interface" << interfaceName << "not UP after" << elapsed.elapsed()
                       << "ms (timeout:" << timeoutMs << "ms)";
    return Outcome::TimedOut;
}

// The event loop runs within a wait, and may bring the next request: waiting within the wait would hold up the
// first until the last is done.
void TunCompanion::configureInterfaceDns(const QString &address, const QString &interfaceName,
                                         const std::function<bool()> &isWanted)
{
    m_waiting.removeIf([&](const DnsWait &older) { return older.interfaceName == interfaceName; });
    if (m_current && m_current->interfaceName == interfaceName)
        m_current->replaced = true;
    DnsWait arriving{address, interfaceName, isWanted};
    arriving.since.start();
    if (m_current) {
        m_waiting.enqueue(arriving);
        return;
    }
    m_current = arriving;
    configureDnsNow(m_dnsTimeout);
    while (!m_waiting.isEmpty() && !quitRequested()) {
        m_current = m_waiting.dequeue();
        const qint64 left = m_dnsTimeout - m_current->since.elapsed();
        configureDnsNow(static_cast<int>(std::max<qint64>(1, left)));
    }
    m_current.reset();
}

void TunCompanion::configureDnsNow(int timeoutMs)
{
    if (m_current->isOver())
        return;
    const QString address = m_current->address;
    const QString interfaceName = m_current->interfaceName;
    qCInfo(lcRuvod) << "[ProcessManager] Configuring DNS for interface" << interfaceName << "to" << address;
    switch (wait(interfaceName, timeoutMs, [this] { return m_current->isOver(); })) {
    case Outcome::Up: break;
    case Outcome::TimedOut:
        qCWarning(lcRuvod) << "[ProcessManager] Cannot set DNS - interface" << interfaceName << "not found";
        return;
    case Outcome::GivenUp: return;
    }
    const QString guid = getInterfaceGuid(interfaceName);
    if (guid.isEmpty()) {
        qCWarning(lcRuvod) << "[ProcessManager] Cannot set DNS - failed to get interface GUID";
        return;
    }
    writeNameServer(guid, address, interfaceName);
}

} // namespace ruvo
