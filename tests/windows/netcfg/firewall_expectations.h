#pragma once

#include <QString>
#include <QStringList>

namespace ruvo::test {

// The whole of what a firewall manager calls and logs when nothing fails, in a daemon at C:\Ruvo\ruvod.exe.

inline const QString daemonFile = R"(C:\Ruvo\ruvod.exe)";
inline const QString coreFile = R"(C:\Ruvo\core\xray.exe)";
inline const QString applicationFile = R"(C:\Ruvo\Ruvo.exe)";
inline const QString listenerRuleName = "RUVO TUN (" + daemonFile + ")";

inline const QStringList initializing = {
    "FwpmEngineOpen0 local authentication ffffffff 'RUVO TUN Strict Route' "
    "'DNS leak prevention and strict routing' flags 1",
    "FwpmSubLayerAdd0 its sublayer 'RUVO TUN Filters' 'Filters for DNS leak prevention' flags 0 weight 65535",
};

inline QStringList permitting(const QString &label, const QString &file)
{
    const QString in = " in its sublayer weight 13 permit program " + file;
    return {"FwpmGetAppIdFromFileName0 " + file, "FwpmFilterAdd0 'ruvo-tun' '" + label + "' connect-v4" + in,
            "FwpmFilterAdd0 'ruvo-tun' '" + label + "' connect-v6" + in,
            "FwpmFilterAdd0 'ruvo-tun' 'protect ipv4 udp' accept-v4" + in,
            "FwpmFilterAdd0 'ruvo-tun' 'protect ipv6 udp' accept-v6" + in};
}

inline const QStringList permittingPrograms = permitting("protect ipv4", daemonFile)
                                              + permitting("protect ipv4 xray", coreFile)
                                              + permitting("protect ipv4 ruvo", applicationFile);

inline const QString blockingIpv6 =
    "FwpmFilterAdd0 'ruvo-tun' 'block ipv6' connect-v6 in its sublayer weight 12 block all";

/// On interface 7.
inline const QStringList permittingTunnel = {
    "FwpmFilterAdd0 'ruvo-tun' 'allow ipv4' connect-v4 in its sublayer weight 11 permit interface uint32 7",
    "FwpmFilterAdd0 'ruvo-tun' 'allow ipv6' connect-v6 in its sublayer weight 11 permit interface uint32 7",
};

inline const QStringList blockingDns = {
    "FwpmFilterAdd0 'ruvo-tun' 'block ipv4 dns' connect-v4 in its sublayer weight 10 block remote-port uint16 53",
    "FwpmFilterAdd0 'ruvo-tun' 'block ipv6 dns' connect-v6 in its sublayer weight 10 block remote-port uint16 53",
};

/// `function` for each of `count` filters: they are numbered from 1001 on.
inline QStringList forEachFilter(const QString &function, int count)
{
    QStringList lines;
    for (int id = 1001; id < 1001 + count; ++id)
        lines.append(function + " " + QString::number(id));
    return lines;
}

inline const QStringList openingFirewall = {"CoInitializeEx 2", "CoCreateInstance NetFwPolicy2 context 1",
                                            "INetFwPolicy2::get_Rules"};

inline const QStringList addingRule = openingFirewall
                                      + QStringList{"CoCreateInstance NetFwRule context 1",
                                                    "INetFwRule::put_Name " + listenerRuleName,
                                                    "INetFwRule::put_Description Allow RUVO TUN TCP NAT listener",
                                                    "INetFwRule::put_ApplicationName " + daemonFile,
                                                    "INetFwRule::put_Protocol 6",
                                                    "INetFwRule::put_Direction 1",
                                                    "INetFwRule::put_Action 1",
                                                    "INetFwRule::put_Enabled -1",
                                                    "INetFwRules::Remove " + listenerRuleName,
                                                    "INetFwRules::Add",
                                                    "CoUninitialize"};

inline const QStringList removingRule =
    openingFirewall + QStringList{"INetFwRules::Remove " + listenerRuleName, "CoUninitialize"};

/// With IPv6 blocked: 17 filters.
inline const QStringList applying = permittingPrograms + QStringList{blockingIpv6} + permittingTunnel + blockingDns
                                    + forEachFilter("FwpmFilterGetById0", 17) + addingRule;

} // namespace ruvo::test
