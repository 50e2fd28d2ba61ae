#include "filtering/filter_check.h"

namespace ruvo::winehost {

namespace {

DWORD checkFlags(UINT32 flags, bool isSessionDynamic)
{
    if ((flags & ~filter_flags::allOfFilters) != 0)
        return static_cast<DWORD>(FWP_E_INVALID_FLAGS);
    if (isSessionDynamic && (flags & (filter_flags::persistent | filter_flags::boottime)) != 0)
        return static_cast<DWORD>(FWP_E_LIFETIME_MISMATCH);
    return flags == 0 ? NO_ERROR : ERROR_NOT_SUPPORTED;
}

DWORD checkWeight(const FWP_VALUE0 &weight)
{
    switch (weight.type) {
    case FWP_UINT8: return weight.uint8 <= highestWeight ? NO_ERROR : static_cast<DWORD>(FWP_E_INVALID_WEIGHT);
    case FWP_EMPTY:
    case FWP_UINT64: return ERROR_NOT_SUPPORTED;
    default: return static_cast<DWORD>(FWP_E_INVALID_WEIGHT);
    }
}

DWORD checkCondition(const FWPM_FILTER_CONDITION0 &condition, const FilterLayer &layer)
{
    const FilterField *field = findField(condition.fieldKey);
    if (!field || (field->onlyOfPrograms && !layer.knowsPrograms))
        return static_cast<DWORD>(FWP_E_CONDITION_NOT_FOUND);
    const FWP_CONDITION_VALUE0 &value = condition.conditionValue;
    const bool isBlob = field->type == FWP_BYTE_BLOB_TYPE;
    if (condition.matchType != FWP_MATCH_EQUAL) {
        // Bytes have no order.
        return isBlob && condition.matchType != FWP_MATCH_NOT_EQUAL ? static_cast<DWORD>(FWP_E_MATCH_TYPE_MISMATCH)
                                                                    : ERROR_NOT_SUPPORTED;
    }
    if (value.type != field->type)
        return static_cast<DWORD>(FWP_E_TYPE_MISMATCH);
    if (isBlob && (!value.byteBlob || !value.byteBlob->data))
        return static_cast<DWORD>(FWP_E_NULL_POINTER);
    if (isBlob && value.byteBlob->size == 0)
        return static_cast<DWORD>(FWP_E_ZERO_LENGTH_ARRAY);
    return field->engineName ? NO_ERROR : ERROR_NOT_SUPPORTED;
}

DWORD checkConditions(const FWPM_FILTER0 &filter, const FilterLayer &layer)
{
    if (filter.numFilterConditions > 0 && !filter.filterCondition)
        return static_cast<DWORD>(FWP_E_NULL_POINTER);
    for (UINT32 i = 0; i < filter.numFilterConditions; ++i) {
        if (const DWORD error = checkCondition(filter.filterCondition[i], layer); error != NO_ERROR)
            return error;
    }
    return NO_ERROR;
}

} // namespace

DWORD checkFilter(const FWPM_FILTER0 &filter, bool isSessionDynamic)
{
    if (!filter.displayData.name)
        return static_cast<DWORD>(FWP_E_NULL_DISPLAY_NAME);
    if (filter.providerKey)
        return static_cast<DWORD>(FWP_E_PROVIDER_NOT_FOUND); // nobody can add one here
    const FilterLayer *layer = findLayer(filter.layerKey);
    if (!layer)
        return static_cast<DWORD>(FWP_E_LAYER_NOT_FOUND);
    if (filter.action.type != FWP_ACTION_BLOCK && filter.action.type != FWP_ACTION_PERMIT)
        return static_cast<DWORD>(FWP_E_INVALID_ACTION_TYPE);
    for (const DWORD error :
         {checkFlags(filter.flags, isSessionDynamic), checkWeight(filter.weight), checkConditions(filter, *layer)}) {
        if (error != NO_ERROR)
            return error;
    }
    return layer->engineName ? NO_ERROR : ERROR_NOT_SUPPORTED;
}

} // namespace ruvo::winehost
