#include "windows/netcfg/fake_ip_helper.h"

#include "common/ipv4.h"

#include <gtest/gtest.h>

#include <cstring>

namespace ruvo::test {

namespace {

constexpr ULONG infinite = 0xFFFFFFFF;

DWORD networkOrder(const char *text)
{
    return htonl(parseIpv4(QString(text)));
}

QString dotted(const SOCKADDR_INET &address)
{
    return address.si_family == AF_INET ? formatIpv4(ntohl(address.Ipv4.sin_addr.s_addr)) : "(not IPv4)";
}

QString dotted(DWORD networkAddress)
{
    return formatIpv4(ntohl(networkAddress));
}

/// What InitializeIpForwardEntry leaves: a row that nobody initialised has something else there.
QString initialised(ULONG lifetime)
{
    return lifetime == infinite ? QString() : QStringLiteral(" (not initialised)");
}

QString routeText(const MIB_IPFORWARD_ROW2 &row)
{
    return QString("%1/%2 via %3 on luid %4 index %5%6")
        .arg(dotted(row.DestinationPrefix.Prefix))
        .arg(row.DestinationPrefix.PrefixLength)
        .arg(dotted(row.NextHop))
        .arg(row.InterfaceLuid.Value)
        .arg(row.InterfaceIndex)
        .arg(initialised(row.ValidLifetime));
}

} // namespace

FakeIpHelper::FakeIpHelper()
    : m_initializeAddress([](PMIB_UNICASTIPADDRESS_ROW row) {
        *row = {};
        row->ValidLifetime = infinite;
        row->PreferredLifetime = infinite;
        row->OnLinkPrefixLength = 255;
    })
    , m_createAddress([this](const MIB_UNICASTIPADDRESS_ROW *row) -> NETIO_STATUS {
        return answer(QString("CreateUnicastIpAddressEntry %1/%2 on luid %3 state %4%5")
                          .arg(dotted(row->Address))
                          .arg(row->OnLinkPrefixLength)
                          .arg(row->InterfaceLuid.Value)
                          .arg(row->DadState)
                          .arg(initialised(row->ValidLifetime)));
    })
    , m_initializeRoute([](PMIB_IPFORWARD_ROW2 row) {
        *row = {};
        row->SitePrefixLength = 255;
        row->ValidLifetime = infinite;
        row->PreferredLifetime = infinite;
        row->Metric = infinite;
    })
    , m_createRoute([this](const MIB_IPFORWARD_ROW2 *row) -> NETIO_STATUS {
        return answer(QString("CreateIpForwardEntry2 %1 metric %2 protocol %3")
                          .arg(routeText(*row))
                          .arg(row->Metric)
                          .arg(row->Protocol));
    })
    , m_deleteRoute([this](const MIB_IPFORWARD_ROW2 *row) -> NETIO_STATUS {
        return answer("DeleteIpForwardEntry2 " + routeText(*row));
    })
    , m_createOlderRoute([this](PMIB_IPFORWARDROW row) -> DWORD {
        return answer(QString("CreateIpForwardEntry %1/%2 via %3 index %4 type %5 protocol %6 metric %7")
                          .arg(dotted(row->dwForwardDest), dotted(row->dwForwardMask), dotted(row->dwForwardNextHop))
                          .arg(row->dwForwardIfIndex)
                          .arg(row->dwForwardType)
                          .arg(row->dwForwardProto)
                          .arg(row->dwForwardMetric1));
    })
    , m_forwardTable([this](PMIB_IPFORWARDTABLE table, PULONG size, BOOL sorted) -> DWORD {
        return fillForwardTable(table, size, sorted);
    })
    , m_initializeInterface([](PMIB_IPINTERFACE_ROW row) {
        *row = {};
        row->SitePrefixLength = infinite;
        row->Metric = infinite;
        row->NlMtu = infinite;
    })
    , m_getInterface([this](PMIB_IPINTERFACE_ROW row) -> NETIO_STATUS {
        const QString which = row->InterfaceLuid.Value != 0 ? QString("luid %1").arg(row->InterfaceLuid.Value)
                                                            : QString("index %1").arg(row->InterfaceIndex);
        const DWORD error = answer(QString("GetIpInterfaceEntry family %1 %2").arg(row->Family).arg(which));
        row->Metric = currentMetric;
        row->UseAutomaticMetric = automaticMetric;
        row->SitePrefixLength = 64;
        row->NlMtu = 9000;
        row->DisableDefaultRoutes = TRUE;
        row->DadTransmits = 3; // stands for all that has to stay
        return error;
    })
    , m_setInterface([this](PMIB_IPINTERFACE_ROW row) -> NETIO_STATUS {
        return answer(
            QString("SetIpInterfaceEntry family %1 luid %2 automatic %3 metric %4 forwarding %5 site-prefix %6 "
                    "mtu %7 disable-default-routes %8 dad-transmits %9")
                .arg(row->Family)
                .arg(row->InterfaceLuid.Value)
                .arg(row->UseAutomaticMetric)
                .arg(row->Metric)
                .arg(row->ForwardingEnabled)
                .arg(row->SitePrefixLength)
                .arg(row->NlMtu)
                .arg(row->DisableDefaultRoutes)
                .arg(row->DadTransmits));
    })
    , m_luidToIndex([this](const NET_LUID *luid, PNET_IFINDEX index) -> NETIO_STATUS {
        *index = interfaceIndex;
        return answer(QString("ConvertInterfaceLuidToIndex %1").arg(luid->Value));
    })
    , m_luidToGuid([this](const NET_LUID *luid, GUID *guid) -> NETIO_STATUS {
        *guid = interfaceGuid;
        return answer(QString("ConvertInterfaceLuidToGuid %1").arg(luid->Value));
    })
{}

void FakeIpHelper::fail(const QString &function, DWORD error, const QString &part)
{
    m_failures.push_back({function, error, part});
}

void FakeIpHelper::failForwardTable(int nth, DWORD error)
{
    m_tableFailures[nth] = error;
}

DWORD FakeIpHelper::answer(const QString &line)
{
    calls.append(line);
    for (const Failure &failure : m_failures) {
        if (line.section(' ', 0, 0) == failure.function && line.contains(failure.part))
            return failure.error;
    }
    return NO_ERROR;
}

DWORD FakeIpHelper::fillForwardTable(PMIB_IPFORWARDTABLE table, PULONG size, BOOL sorted)
{
    EXPECT_FALSE(sorted) << "the system's own order decides";
    ++forwardTableCalls;
    if (m_tableFailures.contains(forwardTableCalls))
        return m_tableFailures.value(forwardTableCalls);
    const auto needed =
        static_cast<ULONG>(offsetof(MIB_IPFORWARDTABLE, table) + forwardTable.size() * sizeof(MIB_IPFORWARDROW));
    if (!table || *size < needed) {
        *size = needed;
        forwardTable.insert(forwardTable.end(), rowsInBetween.begin(), rowsInBetween.end());
        return ERROR_INSUFFICIENT_BUFFER;
    }
    table->dwNumEntries = static_cast<DWORD>(forwardTable.size());
    MIB_IPFORWARDROW *next = table->table;
    for (const ForwardRow &row : forwardTable) {
        *next = {};
        next->dwForwardDest = networkOrder(row.destination);
        next->dwForwardMask = networkOrder(row.mask);
        next->dwForwardNextHop = networkOrder(row.nextHop);
        next->dwForwardIfIndex = row.interfaceIndex;
        next->dwForwardType = next->dwForwardNextHop == 0 ? MIB_IPROUTE_TYPE_DIRECT : MIB_IPROUTE_TYPE_INDIRECT;
        next->dwForwardProto = row.protocol;
        next->dwForwardMetric1 = row.metric;
        ++next;
    }
    return NO_ERROR;
}

} // namespace ruvo::test
