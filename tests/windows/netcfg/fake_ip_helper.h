#pragma once

#include "common/winsock_headers.h"

#include "windows/support/import_redirection.h"

#include <netioapi.h>

#include <QHash>
#include <QString>
#include <QStringList>

#include <vector>

namespace ruvo::test {

/// A row of the forward table, addresses in dotted text.
struct ForwardRow
{
    const char *destination;
    const char *mask;
    const char *nextHop;
    DWORD interfaceIndex;
    DWORD metric = 25;
    DWORD protocol = MIB_IPPROTO_NETMGMT;
};

/// IP Helper as far as adapter and routes call it: a table of routes that the test writes, answers of its choice, and
/// every call as a line of text. It changes nothing in the system. One thread.
class FakeIpHelper
{
public:
    FakeIpHelper();
    FakeIpHelper(const FakeIpHelper &) = delete;
    FakeIpHelper &operator=(const FakeIpHelper &) = delete;

    std::vector<ForwardRow> forwardTable;
    /// What comes between the two look-ups of one reading.
    std::vector<ForwardRow> rowsInBetween;
    DWORD interfaceIndex = 7;
    GUID interfaceGuid{0x12345678, 0x9ABC, 0xDEF0, {1, 2, 3, 4, 5, 6, 7, 8}};
    ULONG currentMetric = 25;
    BOOLEAN automaticMetric = TRUE;

    /// Every call of `function` gives `error`, or only those whose line contains `part`.
    void fail(const QString &function, DWORD error, const QString &part = {});
    /// Number `nth` of the look-ups in the forward table, two of which are one reading, gives `error`.
    void failForwardTable(int nth, DWORD error);

    /// Changes and look-ups of interfaces; look-ups in the forward table are counted instead.
    QStringList calls;
    int forwardTableCalls = 0;

private:
    struct Failure
    {
        QString function;
        DWORD error;
        QString part;
    };

    DWORD answer(const QString &line);
    DWORD fillForwardTable(PMIB_IPFORWARDTABLE table, PULONG size, BOOL sorted);

    std::vector<Failure> m_failures;
    QHash<int, DWORD> m_tableFailures;

    const ImportRedirection<IMPORT(InitializeUnicastIpAddressEntry)> m_initializeAddress;
    const ImportRedirection<IMPORT(CreateUnicastIpAddressEntry)> m_createAddress;
    const ImportRedirection<IMPORT(InitializeIpForwardEntry)> m_initializeRoute;
    const ImportRedirection<IMPORT(CreateIpForwardEntry2)> m_createRoute;
    const ImportRedirection<IMPORT(DeleteIpForwardEntry2)> m_deleteRoute;
    const ImportRedirection<IMPORT(CreateIpForwardEntry)> m_createOlderRoute;
    const ImportRedirection<IMPORT(GetIpForwardTable)> m_forwardTable;
    const ImportRedirection<IMPORT(InitializeIpInterfaceEntry)> m_initializeInterface;
    const ImportRedirection<IMPORT(GetIpInterfaceEntry)> m_getInterface;
    const ImportRedirection<IMPORT(SetIpInterfaceEntry)> m_setInterface;
    const ImportRedirection<IMPORT(ConvertInterfaceLuidToIndex)> m_luidToIndex;
    const ImportRedirection<IMPORT(ConvertInterfaceLuidToGuid)> m_luidToGuid;
};

} // namespace ruvo::test
