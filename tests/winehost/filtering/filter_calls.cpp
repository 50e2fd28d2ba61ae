// Filters of the engine, and the app ids of programs.

#include "filtering/app_id.h"
#include "filtering/engine_session.h"
#include "filtering/filter_check.h"
#include "filtering/filter_lines.h"
#include "filtering/judge.h"
#include "library/blocks.h"
#include "library/planned_call.h"

#include <cstring>

namespace {

using namespace ruvo::winehost;

JsonLine questionAbout(const char *call, UINT64 id)
{
    JsonLine question;
    question.add("call", call).add("id", id);
    return question;
}

DWORD add(PlannedCall &call, EngineSession &session, const FWPM_FILTER0 &filter, UINT64 *id)
{
    if (const DWORD error = checkFilter(filter, session.isDynamic()); error != NO_ERROR)
        return error;
    JsonValue answer;
    const DWORD error = session.ask(questionOf(filter), &answer);
    forgetVerdicts();
    if (error != NO_ERROR)
        return error;
    const auto added = static_cast<UINT64>(answer["id"].number);
    call.add("id", added);
    if (id)
        *id = added;
    return NO_ERROR;
}

DWORD get(PlannedCall &call, EngineSession &session, UINT64 id, FWPM_FILTER0 **filter)
{
    if (!filter)
        return static_cast<DWORD>(FWP_E_NULL_POINTER);
    JsonValue answer;
    if (const DWORD error = session.ask(questionAbout("filter-get", id), &answer); error != NO_ERROR)
        return error;
    unsigned long block = 0;
    *filter = copyFilter(answer, block);
    if (!*filter)
        return RPC_S_CALL_FAILED;
    (*filter)->filterId = id;
    call.add("block", block);
    return NO_ERROR;
}

DWORD getAppId(PlannedCall &call, const wchar_t *path, FWP_BYTE_BLOB **result)
{
    if (!path || !result)
        return static_cast<DWORD>(FWP_E_NULL_POINTER);
    const auto id = appIdOf(path);
    if (!id)
        return id.error();
    const std::size_t size = (id->size() + 1) * sizeof(wchar_t);
    unsigned long number = 0;
    auto *blob = static_cast<FWP_BYTE_BLOB *>(allocateBlock(sizeof(FWP_BYTE_BLOB) + size, number));
    blob->size = static_cast<UINT32>(size);
    blob->data = reinterpret_cast<UINT8 *>(blob + 1);
    std::memcpy(blob->data, id->c_str(), size);
    *result = blob;
    call.add("app-id", std::wstring_view(*id)).add("block", number);
    return NO_ERROR;
}

} // namespace

extern "C" {

DWORD WINAPI FwpmFilterAdd0(HANDLE handle, const FWPM_FILTER0 *filter, PSECURITY_DESCRIPTOR descriptor, UINT64 *id)
{
    PlannedCall call("FwpmFilterAdd0");
    const auto session = sessionOf(handle);
    call.add("engine", session ? session->number() : 0);
    if (filter)
        describeFilter(call, *filter);
    call.add("security", descriptor != nullptr);
    return call.finish([&]() -> DWORD {
        if (!session)
            return ERROR_INVALID_HANDLE;
        return filter ? add(call, *session, *filter, id) : static_cast<DWORD>(FWP_E_NULL_POINTER);
    });
}

DWORD WINAPI FwpmFilterDeleteById0(HANDLE handle, UINT64 id)
{
    PlannedCall call("FwpmFilterDeleteById0");
    const auto session = sessionOf(handle);
    call.add("engine", session ? session->number() : 0).add("id", id);
    return call.finish([&]() -> DWORD {
        if (!session)
            return ERROR_INVALID_HANDLE;
        const DWORD error = session->ask(questionAbout("filter-delete", id));
        forgetVerdicts();
        return error;
    });
}

DWORD WINAPI FwpmFilterGetById0(HANDLE handle, UINT64 id, FWPM_FILTER0 **filter)
{
    PlannedCall call("FwpmFilterGetById0");
    const auto session = sessionOf(handle);
    call.add("engine", session ? session->number() : 0).add("id", id);
    return call.finish([&] { return session ? get(call, *session, id, filter) : DWORD{ERROR_INVALID_HANDLE}; });
}

DWORD WINAPI FwpmGetAppIdFromFileName0(const wchar_t *path, FWP_BYTE_BLOB **id)
{
    PlannedCall call("FwpmGetAppIdFromFileName0");
    call.add("path", path);
    return call.finish([&] { return getAppId(call, path, id); });
}

void WINAPI FwpmFreeMemory0(void **memory)
{
    JournalEntry entry("FwpmFreeMemory0");
    if (!memory)
        return;
    const unsigned long block = freeBlock(*memory);
    entry.add("block", block);
    if (*memory && block == 0)
        entry.add("misuse", "of no block");
    *memory = nullptr;
}

} // extern "C"
