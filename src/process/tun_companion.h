#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QQueue>
#include <QString>

#include <functional>
#include <optional>

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
    static constexpr int interfaceTimeout = 10000; // ms

    /// `dnsTimeoutMs` is what configureInterfaceDns waits for an adapter.
    explicit TunCompanion(QObject *parent = nullptr, int dnsTimeoutMs = interfaceTimeout);

    /// Removes the Wintun device of the adapter with this name, if there is one, with pnputil.
    void cleanupTunInterface(const QString &adapterName);
    /// Waits for the adapter and writes `address` as its DNS server, as it was received.
    ///
    /// Waits run one after the other: while one runs, the next are queued. Each has its time from its arrival on, and
    /// one look at least. A newer one for the same interface replaces one that waits, and one that is no longer
    /// wanted (asked between looks; always wanted without `isWanted`) is given up; neither says a word.
    void configureInterfaceDns(const QString &address, const QString &interfaceName,
                               const std::function<bool()> &isWanted = {});
    /// False after `timeoutMs`, and without a word once the daemon is quitting. Runs the event loop.
    bool waitForInterfaceUp(const QString &interfaceName, int timeoutMs);
    /// Without braces; empty if there is no such adapter.
    QString getInterfaceGuid(const QString &interfaceName);

private:
    struct DnsWait
    {
        QString address;
        QString interfaceName;
        std::function<bool()> isWanted;
        QElapsedTimer since{};
        bool replaced = false;

        bool isOver() const { return replaced || (isWanted && !isWanted()); }
    };
    enum class Outcome {
        Up,
        TimedOut,
        GivenUp,
    };

    void configureDnsNow(int timeoutMs);
    Outcome wait(const QString &interfaceName, int timeoutMs, const std::function<bool()> &isOver);

    const int m_dnsTimeout; // ms
    std::optional<DnsWait> m_current;
    QQueue<DnsWait> m_waiting; // one for each interface at most
};

} // namespace ruvo
