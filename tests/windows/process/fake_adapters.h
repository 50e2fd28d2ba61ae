#pragma once

#include "common/winsock_headers.h"
#include "windows/support/import_redirection.h"

#include <iphlpapi.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace ruvo::test {

struct FakeAdapter
{
    std::wstring name;
    std::string guid; // as Windows has it, between braces
    bool up = true;
};

/// Stands in for the machine's network adapters. Used by one thread.
class FakeAdapters
{
public:
    explicit FakeAdapters(std::vector<FakeAdapter> list = {}) : adapters(std::move(list)) {}

    std::vector<FakeAdapter> adapters;
    /// What the two calls return: for the size, and for the list.
    ULONG sizeResult = ERROR_BUFFER_OVERFLOW;
    ULONG listResult = NO_ERROR;
    /// Called at each query, with its number from 1 on, before it is answered.
    std::function<void(int)> onQuery;
    int queries = 0;

private:
    /// One adapter with its texts behind it, as Windows lays them into the caller's buffer.
    struct Block
    {
        IP_ADAPTER_ADDRESSES adapter;
        wchar_t name[64];
        char guid[64];
    };

    ULONG get(ULONG family, ULONG flags, PVOID reserved, PIP_ADAPTER_ADDRESSES buffer, PULONG size);

    const ImportRedirection<IMPORT(GetAdaptersAddresses)> m_redirection{
        [this](auto... arguments) { return get(arguments...); }};
};

} // namespace ruvo::test
