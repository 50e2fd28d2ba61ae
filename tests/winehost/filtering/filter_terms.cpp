#include "filtering/filter_terms.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

namespace ruvo::winehost {

namespace {

constexpr FilterLayer layers[] = {
    {{0xc38d57d1, 0x05a7, 0x4c33, {0x90, 0x4f, 0x7f, 0xbc, 0xee, 0xe6, 0x0e, 0x82}},
     "ALE_AUTH_CONNECT_V4",
     "connect-v4",
     true},
    {{0x4a72393b, 0x319f, 0x44bc, {0x84, 0xc3, 0xba, 0x54, 0xdc, 0xb3, 0xb6, 0xb4}},
     "ALE_AUTH_CONNECT_V6",
     "connect-v6",
     true},
    {{0xe1cd9fe7, 0xf4b5, 0x4273, {0x96, 0xc0, 0x59, 0x2e, 0x48, 0x7b, 0x86, 0x50}},
     "ALE_AUTH_RECV_ACCEPT_V4",
     "accept-v4",
     true},
    {{0xa3b42c97, 0x9f04, 0x4672, {0xb8, 0x7e, 0xce, 0xe9, 0xc4, 0x83, 0x25, 0x7f}},
     "ALE_AUTH_RECV_ACCEPT_V6",
     "accept-v6",
     true},
    {{0x09e61aea, 0xd214, 0x46e2, {0x9b, 0x21, 0xb2, 0x6b, 0x0b, 0x2f, 0x28, 0xc8}},
     "OUTBOUND_TRANSPORT_V4",
     nullptr,
     false},
    {{0x5926dfc8, 0xe3cf, 0x4426, {0xa2, 0x83, 0xdc, 0x39, 0x3f, 0x5d, 0x0f, 0x9d}},
     "INBOUND_TRANSPORT_V4",
     nullptr,
     false},
};

constexpr FilterField fields[] = {
    {{0xd78e1e87, 0x8644, 0x4ea5, {0x94, 0x37, 0xd8, 0x09, 0xec, 0xef, 0xc9, 0x71}},
     "ALE_APP_ID",
     "app-id",
     FWP_BYTE_BLOB_TYPE,
     true},
    {{0x667fd755, 0xd695, 0x434a, {0x8a, 0xf5, 0xd3, 0x83, 0x5a, 0x12, 0x59, 0xbc}},
     "INTERFACE_INDEX",
     "interface-index",
     FWP_UINT32,
     false},
    {{0xc35a604d, 0xd22b, 0x4e1a, {0x91, 0xb4, 0x68, 0xf6, 0x74, 0xee, 0x67, 0x4b}},
     "IP_REMOTE_PORT",
     "remote-port",
     FWP_UINT16,
     false},
    {{0x0c1ba1af, 0x5765, 0x453f, {0xaf, 0x22, 0xa8, 0xf7, 0x91, 0xac, 0x77, 0x5b}},
     "IP_LOCAL_PORT",
     nullptr,
     FWP_UINT16,
     false},
    {{0x3971ef2b, 0x623e, 0x4f9a, {0x8c, 0xb1, 0x6e, 0x79, 0xb8, 0x06, 0xb9, 0xa7}},
     "IP_PROTOCOL",
     nullptr,
     FWP_UINT8,
     false},
};

template<typename Row, std::size_t count>
const Row *findRow(const Row (&rows)[count], const GUID &key)
{
    const auto *found = std::ranges::find_if(rows, [&](const Row &row) { return IsEqualGUID(row.key, key); });
    return found == std::end(rows) ? nullptr : found;
}

template<typename Row, std::size_t count>
const Row *findRow(const Row (&rows)[count], std::string_view engineName)
{
    const auto *found =
        std::ranges::find_if(rows, [&](const Row &row) { return row.engineName && engineName == row.engineName; });
    return found == std::end(rows) ? nullptr : found;
}

/// By number.
constexpr std::array typeNames = {"EMPTY",
                                  "UINT8",
                                  "UINT16",
                                  "UINT32",
                                  "UINT64",
                                  "INT8",
                                  "INT16",
                                  "INT32",
                                  "INT64",
                                  "FLOAT",
                                  "DOUBLE",
                                  "BYTE_ARRAY16",
                                  "BYTE_BLOB",
                                  "SID",
                                  "SECURITY_DESCRIPTOR",
                                  "TOKEN_INFORMATION"};
constexpr std::array matchNames = {
    "EQUAL",         "GREATER",       "LESS",           "GREATER_OR_EQUAL",       "LESS_OR_EQUAL", "RANGE",
    "FLAGS_ALL_SET", "FLAGS_ANY_SET", "FLAGS_NONE_SET", "EQUAL_CASE_INSENSITIVE", "NOT_EQUAL"};

template<std::size_t count>
std::string nameAt(const std::array<const char *, count> &names, unsigned number)
{
    return number < count ? names[number] : std::to_string(number);
}

} // namespace

const FilterLayer *findLayer(const GUID &key)
{
    return findRow(layers, key);
}

const FilterLayer *findLayer(std::string_view engineName)
{
    return findRow(layers, engineName);
}

const FilterField *findField(const GUID &key)
{
    return findRow(fields, key);
}

const FilterField *findField(std::string_view engineName)
{
    return findRow(fields, engineName);
}

std::string nameOfType(FWP_DATA_TYPE type)
{
    return nameAt(typeNames, static_cast<unsigned>(type));
}

std::string nameOfMatch(FWP_MATCH_TYPE match)
{
    return nameAt(matchNames, static_cast<unsigned>(match));
}

std::string nameOfAction(FWP_ACTION_TYPE action)
{
    switch (action) {
    case FWP_ACTION_BLOCK: return "BLOCK";
    case FWP_ACTION_PERMIT: return "PERMIT";
    default: return std::to_string(action);
    }
}

std::wstring appIdText(const FWP_BYTE_BLOB *blob)
{
    if (!blob || !blob->data)
        return {};
    std::wstring text(blob->size / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), blob->data, text.size() * sizeof(wchar_t));
    // Programs are compared with zero and all: an id without one is nobody's.
    if (!text.ends_with(L'\0'))
        return text + L"(without its end)";
    text.pop_back();
    return text;
}

} // namespace ruvo::winehost
