#pragma once

#include "windows/netcfg/namespace_test.h"

#include "tun/ruvo_tun_manager.h"

#include <QJsonObject>
#include <QStringList>

#include <optional>
#include <string>

namespace ruvo::test {

/// Tests of the tunnel as clients ask for it, on real interfaces and routes. Its signals are written down.
class RuvoTunManagerTest : public NamespaceTest
{
protected:
    /// The interface of an adapter with the default name, which Linux has no room for.
    static constexpr char defaultLink[] = "ruvo-def-519a5f";

    inline static const QJsonObject success = {{"success", true}};
    inline static const QJsonObject notRunning = {{"success", false}, {"error", "TUN not running"}};
    inline static const QJsonObject idle = {{"running", false}, {"adapter-name", ""}};

    static QJsonObject started(const QString &name = "ruvo-default-tun", const QString &address = "10.6.7.1");
    static QJsonObject failed(const QString &text);

    static void SetUpTestSuite();
    static void TearDownTestSuite();

    void SetUp() override;
    void TearDown() override;

    /// The interface that a packet to `address` leaves through.
    static std::string wayTo(const std::string &address);

    std::optional<RuvoTunManager> m_manager;
    QStringList m_signals;
};

} // namespace ruvo::test
