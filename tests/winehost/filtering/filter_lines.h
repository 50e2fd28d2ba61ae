#pragma once

#include "filtering/filter_terms.h"
#include "library/json_line.h"
#include "library/json_value.h"

namespace ruvo::winehost {

/// A filter for the journal, whatever is wrong with it. Each condition is a text: "IP_REMOTE_PORT EQUAL UINT16 53".
void describeFilter(JsonLine &line, const FWPM_FILTER0 &filter);

/// A filter that has passed checkFilter, for the engine.
JsonLine questionOf(const FWPM_FILTER0 &filter);

/// What the engine says of one of its filters, in one block of allocateBlock; null if it makes no sense.
FWPM_FILTER0 *copyFilter(const JsonValue &answer, unsigned long &blockNumber);

} // namespace ruvo::winehost
