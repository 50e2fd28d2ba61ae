#pragma once

#include <QObject>
#include <QQueue>
#include <QString>

#include <utility>

namespace ruvo {

/// Help for a child that brings a TUN adapter of its own: removes a left-over adapter of that name, and gives the
/// new one its DNS server. Every failure is a log line, and stops nothing.
///
/// Service thread. Removal blocks it for up to 6 s; the wait for an adapter, up to 10 s, keeps the event loop
/// running, except for slices of 200 ms.
class TunCompanion : public QObject
{
    Q_OBJECT

public:
    explicit TunCompanion(QObject *parent = nullptr);

    /// Removes the Wintun device of the adapter with this name, if there is one, with pnputil.
    void cleanupTunInterface(const QString &adapterName);
    /// Waits for the adapter and writes `address` as its DNS server, as it was received. Waits run one after the
    /// other: while one runs, the next are queued.
    void configureInterfaceDns(const QString &address, const QString &interfaceName);
    /// False after `timeoutMs`, and without a word once the daemon is quitting. Runs the event loop.
    bool waitForInterfaceUp(const QString &interfaceName, int timeoutMs);
    /// Without braces; empty if there is no such adapter.
    QString getInterfaceGuid(const QString &interfaceName);

private:
    void configureDnsNow(const QString &address, const QString &interfaceName);

    bool m_configuring = false;
    QQueue<std::pair<QString, QString>> m_waiting; // address, interface
};

} // namespace ruvo
