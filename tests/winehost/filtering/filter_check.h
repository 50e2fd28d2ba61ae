#pragma once

#include "filtering/filter_terms.h"

namespace ruvo::winehost {

/// What Windows finds wrong with a filter before it looks at what there is already; NO_ERROR for a good one.
/// ERROR_NOT_SUPPORTED: Windows would take it, the bench's engine cannot do it.
DWORD checkFilter(const FWPM_FILTER0 &filter, bool isSessionDynamic);

} // namespace ruvo::winehost
