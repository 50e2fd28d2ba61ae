#pragma once

#include "common/winsock_headers.h"

#include <fwpmu.h>

#include <string>

namespace ruvo::winehost {

// Layers and fields as the header files do not give them: their keys and names, what the engine calls them.

namespace filter_flags {
constexpr UINT32 dynamicSession = 1;     // FWPM_SESSION_FLAG_DYNAMIC
constexpr UINT16 persistentSublayer = 1; // FWPM_SUBLAYER_FLAG_PERSISTENT
constexpr UINT32 persistent = 1;         // FWPM_FILTER_FLAG_PERSISTENT
constexpr UINT32 boottime = 2;           // FWPM_FILTER_FLAG_BOOTTIME
constexpr UINT32 allOfFilters = 0x3F;
} // namespace filter_flags

/// The highest weight of type FWP_UINT8.
constexpr UINT8 highestWeight = 15;

struct FilterLayer
{
    GUID key;
    const char *name;       ///< without FWPM_LAYER_
    const char *engineName; ///< null: the engine has no such layer
    bool knowsPrograms;     ///< what passes here belongs to a program
};

struct FilterField
{
    GUID key;
    const char *name;       ///< without FWPM_CONDITION_
    const char *engineName; ///< null: the engine cannot look at it
    FWP_DATA_TYPE type;
    bool onlyOfPrograms; ///< only layers that know programs have it
};

/// Null for an unknown key.
const FilterLayer *findLayer(const GUID &key);
const FilterLayer *findLayer(std::string_view engineName);
const FilterField *findField(const GUID &key);
const FilterField *findField(std::string_view engineName);

/// As in the header, without prefix ("UINT8", "EQUAL", "BLOCK"); a number where there is no name.
std::string nameOfType(FWP_DATA_TYPE type);
std::string nameOfMatch(FWP_MATCH_TYPE match);
std::string nameOfAction(FWP_ACTION_TYPE action);

/// The text of an app id without the zero at its end.
std::wstring appIdText(const FWP_BYTE_BLOB *blob);

} // namespace ruvo::winehost
