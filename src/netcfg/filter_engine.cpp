#include "netcfg/filter_engine.h"

#include "common/dns_redirect.h"
#include "netcfg/filter_rules.h"

#include <objbase.h>

#include <cstddef>
#include <cstring>

namespace ruvo {

namespace {

// Of fwpmu.h in the Windows SDK; other SDKs lack them.
constexpr UINT32 dynamicSession = 0x00000001; // FWPM_SESSION_FLAG_DYNAMIC
constexpr GUID connectV4 =                    // FWPM_LAYER_ALE_AUTH_CONNECT_V4
    {0xc38d57d1, 0x05a7, 0x4c33, {0x90, 0x4f, 0x7f, 0xbc, 0xee, 0xe6, 0x0e, 0x82}};
constexpr GUID connectV6 = // FWPM_LAYER_ALE_AUTH_CONNECT_V6
    {0x4a72393b, 0x319f, 0x44bc, {0x84, 0xc3, 0xba, 0x54, 0xdc, 0xb3, 0xb6, 0xb4}};
constexpr GUID acceptV4 = // FWPM_LAYER_ALE_AUTH_RECV_ACCEPT_V4
    {0xe1cd9fe7, 0xf4b5, 0x4273, {0x96, 0xc0, 0x59, 0x2e, 0x48, 0x7b, 0x86, 0x50}};
constexpr GUID acceptV6 = // FWPM_LAYER_ALE_AUTH_RECV_ACCEPT_V6
    {0xa3b42c97, 0x9f04, 0x4672, {0xb8, 0x7e, 0xce, 0xe9, 0xc4, 0x83, 0x25, 0x7f}};
constexpr GUID programField = // FWPM_CONDITION_ALE_APP_ID
    {0xd78e1e87, 0x8644, 0x4ea5, {0x94, 0x37, 0xd8, 0x09, 0xec, 0xef, 0xc9, 0x71}};
constexpr GUID interfaceField = // FWPM_CONDITION_INTERFACE_INDEX
    {0x667fd755, 0xd695, 0x434a, {0x8a, 0xf5, 0xd3, 0x83, 0x5a, 0x12, 0x59, 0xbc}};
constexpr GUID remotePortField = // FWPM_CONDITION_IP_REMOTE_PORT
    {0xc35a604d, 0xd22b, 0x4e1a, {0x91, 0xb4, 0x68, 0xf6, 0x74, 0xee, 0x67, 0x4b}};

constexpr UINT16 highestWeight = 0xFFFF;

// Where the flags of a sublayer have 16 bits, as in older SDKs, the other half of the 32 that a current Windows reads
// is padding before this member. The widths of all members in a session, a filter and a condition are the same.
static_assert(offsetof(FWPM_SUBLAYER0, providerKey) == 40);

/// Windows only reads these texts, but its structure says otherwise.
FWPM_DISPLAY_DATA0 displayData(const wchar_t *name, const wchar_t *description)
{
    return {const_cast<wchar_t *>(name), const_cast<wchar_t *>(description)};
}

const GUID &layerKey(FilterLayer layer)
{
    switch (layer) {
    case FilterLayer::ConnectV4: return connectV4;
    case FilterLayer::ConnectV6: return connectV6;
    case FilterLayer::AcceptV4: return acceptV4;
    case FilterLayer::AcceptV6: break;
    }
    return acceptV6;
}

FWPM_FILTER_CONDITION0 conditionOf(const FilterRule &rule, const FilterOperand &operand)
{
    FWPM_FILTER_CONDITION0 condition{};
    condition.matchType = FWP_MATCH_EQUAL;
    FWP_CONDITION_VALUE0 &value = condition.conditionValue;
    switch (rule.condition) {
    case FilterCondition::None: break;
    case FilterCondition::Program:
        condition.fieldKey = programField;
        value.type = FWP_BYTE_BLOB_TYPE;
        value.byteBlob = operand.program;
        break;
    case FilterCondition::InterfaceIndex:
        condition.fieldKey = interfaceField;
        value.type = FWP_UINT32;
        value.uint32 = operand.interfaceIndex;
        break;
    case FilterCondition::RemoteDnsPort:
        condition.fieldKey = remotePortField;
        value.type = FWP_UINT16;
        value.uint16 = dnsPort;
        break;
    }
    return condition;
}

} // namespace

FilterEngine::FilterEngine() : m_keyResult(CoCreateGuid(&m_subLayer))
{
    if (FAILED(m_keyResult))
        m_subLayer = {};
}

DWORD FilterEngine::open()
{
    FWPM_SESSION0 session{};
    session.displayData = displayData(L"RUVO TUN Strict Route", L"DNS leak prevention and strict routing");
    session.flags = dynamicSession;
    HANDLE opened = nullptr;
    const DWORD error = FwpmEngineOpen0(nullptr, RPC_C_AUTHN_DEFAULT, nullptr, &session, &opened);
    if (error == NO_ERROR)
        m_session.reset(opened);
    return error;
}

DWORD FilterEngine::addSubLayer()
{
    FWPM_SUBLAYER0 subLayer;
    // With its padding, which `{}` may leave as it is: Windows takes some of it for flags.
    std::memset(&subLayer, 0, sizeof(subLayer));
    subLayer.subLayerKey = m_subLayer;
    subLayer.displayData = displayData(L"RUVO TUN Filters", L"Filters for DNS leak prevention");
    subLayer.weight = highestWeight;
    const DWORD error = FwpmSubLayerAdd0(m_session.get(), &subLayer, nullptr);
    return error == NO_ERROR && FAILED(m_keyResult) ? static_cast<DWORD>(m_keyResult) : error;
}

std::expected<std::uint64_t, DWORD> FilterEngine::add(const FilterRule &rule, const FilterOperand &operand)
{
    FWPM_FILTER_CONDITION0 condition = conditionOf(rule, operand);
    FWPM_FILTER0 filter{};
    filter.displayData = displayData(filterName, rule.label);
    filter.layerKey = layerKey(rule.layer);
    filter.subLayerKey = m_subLayer;
    filter.weight.type = FWP_UINT8;
    filter.weight.uint8 = rule.weight;
    if (rule.condition != FilterCondition::None) {
        filter.numFilterConditions = 1;
        filter.filterCondition = &condition;
    }
    filter.action.type = rule.action == FilterAction::Permit ? FWP_ACTION_PERMIT : FWP_ACTION_BLOCK;
    UINT64 id = 0;
    const DWORD error = FwpmFilterAdd0(m_session.get(), &filter, nullptr, &id);
    if (error != NO_ERROR)
        return std::unexpected(error);
    return id;
}

std::expected<void, DWORD> FilterEngine::find(std::uint64_t id) const
{
    FilterMemory<FWPM_FILTER0> filter;
    const DWORD error = FwpmFilterGetById0(m_session.get(), id, filter.out());
    if (error != NO_ERROR || !filter)
        return std::unexpected(error);
    return {};
}

void FilterEngine::remove(std::uint64_t id)
{
    FwpmFilterDeleteById0(m_session.get(), id);
}

void FilterEngine::removeSubLayer()
{
    FwpmSubLayerDeleteByKey0(m_session.get(), &m_subLayer);
}

std::expected<ProgramId, DWORD> programId(const std::wstring &path)
{
    ProgramId id;
    const DWORD error = FwpmGetAppIdFromFileName0(path.c_str(), id.out());
    if (error != NO_ERROR)
        return std::unexpected(error);
    return id;
}

} // namespace ruvo
