// Sessions and sublayers of the filtering engine: Wine's does not open. The engine is a program of Linux, which holds
// the filters and makes the kernel obey them.

#include "filtering/engine_session.h"
#include "filtering/filter_terms.h"
#include "filtering/judge.h"
#include "library/guid_text.h"
#include "library/planned_call.h"

namespace {

using namespace ruvo::winehost;

/// As a Windows answers whose filtering service does not run.
constexpr DWORD noEngine = EPT_S_NOT_REGISTERED;

std::string nameOfAuthentication(UINT32 service)
{
    switch (service) {
    case RPC_C_AUTHN_DEFAULT: return "default";
    case RPC_C_AUTHN_WINNT: return "winnt";
    default: return std::to_string(service);
    }
}

DWORD open(PlannedCall &call, const FWPM_SESSION0 *wanted, HANDLE *handle)
{
    if (!handle)
        return static_cast<DWORD>(FWP_E_NULL_POINTER);
    const UINT32 flags = wanted ? wanted->flags : 0;
    if ((flags & ~filter_flags::dynamicSession) != 0)
        return static_cast<DWORD>(FWP_E_INVALID_FLAGS);
    EngineConnection connection;
    if (!connection.connect())
        return noEngine;
    const bool isDynamic = flags == filter_flags::dynamicSession;
    const auto session = std::make_shared<EngineSession>(std::move(connection), isDynamic);
    JsonLine question;
    question.add("call", "open")
        .add("dynamic", isDynamic)
        .add("name", wanted && wanted->displayData.name ? wanted->displayData.name : L"")
        .add("description", wanted && wanted->displayData.description ? wanted->displayData.description : L"");
    const DWORD error = session->ask(question);
    if (error == NO_ERROR) {
        call.add("engine", session->number());
        *handle = addSession(session);
    }
    return error;
}

DWORD addSublayer(EngineSession &session, const FWPM_SUBLAYER0 &sublayer)
{
    if (!sublayer.displayData.name)
        return static_cast<DWORD>(FWP_E_NULL_DISPLAY_NAME);
    if (sublayer.providerKey)
        return static_cast<DWORD>(FWP_E_PROVIDER_NOT_FOUND);
    if ((sublayer.flags & ~filter_flags::persistentSublayer) != 0)
        return static_cast<DWORD>(FWP_E_INVALID_FLAGS);
    if (sublayer.flags != 0)
        return session.isDynamic() ? static_cast<DWORD>(FWP_E_LIFETIME_MISMATCH) : ERROR_NOT_SUPPORTED;
    if (IsEqualGUID(sublayer.subLayerKey, GUID{}))
        return ERROR_NOT_SUPPORTED; // Windows would make a key
    JsonLine question;
    question.add("call", "sublayer-add")
        .add("key", std::string_view(guidText(sublayer.subLayerKey)))
        .add("name", sublayer.displayData.name)
        .add("description", sublayer.displayData.description ? sublayer.displayData.description : L"")
        .add("flags", sublayer.flags)
        .add("weight", sublayer.weight);
    return session.ask(question);
}

} // namespace

extern "C" {

DWORD WINAPI FwpmEngineOpen0(const wchar_t *server, UINT32 authentication, SEC_WINNT_AUTH_IDENTITY_W *identity,
                             const FWPM_SESSION0 *session, HANDLE *handle)
{
    PlannedCall call("FwpmEngineOpen0");
    call.add("server", server)
        .add("authentication", std::string_view(nameOfAuthentication(authentication)))
        .add("identity", identity != nullptr)
        .add("name", session ? session->displayData.name : nullptr)
        .add("description", session ? session->displayData.description : nullptr)
        .add("flags", session ? session->flags : 0);
    return call.finish([&]() -> DWORD {
        if (server) // of this machine only
            return ERROR_INVALID_PARAMETER;
        if (authentication != RPC_C_AUTHN_DEFAULT && authentication != RPC_C_AUTHN_WINNT)
            return RPC_S_UNKNOWN_AUTHN_SERVICE;
        return open(call, session, handle);
    });
}

DWORD WINAPI FwpmEngineClose0(HANDLE handle)
{
    PlannedCall call("FwpmEngineClose0");
    return call.finish([&]() -> DWORD {
        const auto session = takeSession(handle);
        if (!session)
            return ERROR_INVALID_HANDLE;
        call.add("engine", session->number());
        JsonLine question;
        question.add("call", "close");
        const DWORD error = session->ask(question);
        forgetVerdicts();
        return error;
    });
}

DWORD WINAPI FwpmSubLayerAdd0(HANDLE handle, const FWPM_SUBLAYER0 *sublayer, PSECURITY_DESCRIPTOR descriptor)
{
    PlannedCall call("FwpmSubLayerAdd0");
    const auto session = sessionOf(handle);
    call.add("engine", session ? session->number() : 0);
    if (sublayer) {
        call.add("key", std::string_view(guidText(sublayer->subLayerKey)))
            .add("name", sublayer->displayData.name)
            .add("description", sublayer->displayData.description)
            .add("flags", sublayer->flags)
            .add("provider", sublayer->providerKey != nullptr)
            .add("weight", sublayer->weight)
            .add("security", descriptor != nullptr);
    }
    return call.finish([&]() -> DWORD {
        if (!session)
            return ERROR_INVALID_HANDLE;
        return sublayer ? addSublayer(*session, *sublayer) : static_cast<DWORD>(FWP_E_NULL_POINTER);
    });
}

DWORD WINAPI FwpmSubLayerDeleteByKey0(HANDLE handle, const GUID *key)
{
    PlannedCall call("FwpmSubLayerDeleteByKey0");
    const auto session = sessionOf(handle);
    call.add("engine", session ? session->number() : 0);
    if (key)
        call.add("key", std::string_view(guidText(*key)));
    return call.finish([&]() -> DWORD {
        if (!session)
            return ERROR_INVALID_HANDLE;
        if (!key)
            return static_cast<DWORD>(FWP_E_NULL_POINTER);
        JsonLine question;
        question.add("call", "sublayer-delete").add("key", std::string_view(guidText(*key)));
        return session->ask(question);
    });
}

} // extern "C"
