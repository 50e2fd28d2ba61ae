#include "process/tun_companion.h"

#include "common/log_category.h"
#include "common/quit.h"
#include "common/windows_handles.h"
#include "netcfg/network_adapters.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QThread>

#include <memory>
#include <optional>
#include <utility>

namespace ruvo {

namespace {

constexpr int interfaceTimeout = 10000;     // ms
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

TunCompanion::TunCompanion(QObject *parent) : QObject(parent) {}

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
    qCInfo(lcRuvod) << "[ProcessManager] Waiting for interface" << interfaceName << "to be UP (max" << timeoutMs
                    << "ms)";
    QElapsedTimer elapsed;
    elapsed.start();
    while (elapsed.elapsed() < timeoutMs && !quitRequested()) {
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
            return true;
        }
        QCoreApplication::processEvents();
        QThread::msleep(pollInterval);
    }
    if (quitRequested()) // of no interest any more, and not timed out
        return false;
    qCWarning(lcRuvod) << "[ProcessManager] Interface" << interfaceName << "not UP after" << elapsed.elapsed()
                       << "ms (timeout:" << timeoutMs << "ms)";
    return false;
}

// The event loop runs within a wait, and may bring the next request: waiting within the wait would hold up the
// first until the last is done.
void TunCompanion::configureInterfaceDns(const QString &address, const QString &interfaceName)
{
    m_waiting.enqueue({address, interfaceName});
    if (m_configuring)
        return;
    m_configuring = true;
    while (!m_waiting.isEmpty() && !quitRequested()) {
        const auto [nextAddress, nextInterface] = m_waiting.dequeue();
        configureDnsNow(nextAddress, nextInterface);
    }
    m_configuring = false;
}

void TunCompanion::configureDnsNow(const QString &address, const QString &interfaceName)
{
    qCInfo(lcRuvod) << "[ProcessManager] Configuring DNS for interface" << interfaceName << "to" << address;
    const bool up = waitForInterfaceUp(interfaceName, interfaceTimeout);
    if (!up && quitRequested())
        return;
    if (!up) {
        qCWarning(lcRuvod) << "[ProcessManager] Cannot set DNS - interface" << interfaceName << "not found";
        return;
    }
    const QString guid = getInterfaceGuid(interfaceName);
    if (guid.isEmpty()) {
        qCWarning(lcRuvod) << "[ProcessManager] Cannot set DNS - failed to get interface GUID";
        return;
    }
    writeNameServer(guid, address, interfaceName);
}

} // namespace ruvo
