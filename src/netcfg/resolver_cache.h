#pragma once

namespace ruvo {

/// Makes Windows forget the names that it has resolved, for every program. False (and logged) if it does not. Any
/// thread.
bool flushDnsCache();

} // namespace ruvo
