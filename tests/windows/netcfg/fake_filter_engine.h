#pragma once

#include "common/winsock_headers.h"

#include "windows/netcfg/firewall_calls.h"
#include "windows/support/import_redirection.h"

#include <fwpmu.h>

#include <QByteArray>
#include <QHash>

#include <set>
#include <vector>

namespace ruvo::test {

/// The filtering engine as far as the firewall manager calls it. It keeps the ids of filters, in each session from
/// 1001 on, and says in words what it was given. What is not as usual in a structure stands behind its line in
/// brackets.
class FakeFilterEngine
{
public:
    explicit FakeFilterEngine(FirewallCalls &calls);
    /// Expects that nothing which it handed out is left.
    ~FakeFilterEngine();
    FakeFilterEngine(const FakeFilterEngine &) = delete;
    FakeFilterEngine &operator=(const FakeFilterEngine &) = delete;

    /// In order.
    std::vector<UINT64> filters;
    /// A look-up of this one succeeds and finds nothing.
    UINT64 idWithoutFilter = 0;
    int openSessions = 0;
    /// The keys under which they were to be added.
    std::vector<GUID> subLayers;
    /// Allocations that were not given back.
    std::size_t memory() const { return m_memory.size(); }

private:
    DWORD open(const wchar_t *server, UINT32 authentication, const FWPM_SESSION0 &session, HANDLE *handle);
    DWORD addSubLayer(const FWPM_SUBLAYER0 &subLayer);
    DWORD addFilter(const FWPM_FILTER0 &filter, UINT64 *id);
    DWORD findFilter(UINT64 id, FWPM_FILTER0 **filter);
    DWORD deleteFilter(UINT64 id);
    DWORD programId(const QString &path, FWP_BYTE_BLOB **id);
    void freeMemory(void **memory);
    QString conditionText(const FWPM_FILTER0 &filter) const;
    QString keyText(const GUID &key) const;

    FirewallCalls &m_calls;
    UINT64 m_nextId = 1001;
    ULONG m_nextKey = 1;
    std::set<void *> m_memory;

    const ImportRedirection<IMPORT(CoCreateGuid)> m_createGuid;
    const ImportRedirection<IMPORT(FwpmEngineOpen0)> m_open;
    const ImportRedirection<IMPORT(FwpmSubLayerAdd0)> m_addSubLayer;
    const ImportRedirection<IMPORT(FwpmGetAppIdFromFileName0)> m_programId;
    const ImportRedirection<IMPORT(FwpmFilterAdd0)> m_addFilter;
    const ImportRedirection<IMPORT(FwpmFilterGetById0)> m_findFilter;
    const ImportRedirection<IMPORT(FwpmFilterDeleteById0)> m_deleteFilter;
    const ImportRedirection<IMPORT(FwpmSubLayerDeleteByKey0)> m_deleteSubLayer;
    const ImportRedirection<IMPORT(FwpmEngineClose0)> m_close;
    const ImportRedirection<IMPORT(FwpmFreeMemory0)> m_freeMemory;
};

} // namespace ruvo::test
