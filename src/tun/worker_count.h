#pragma once

#include <algorithm>

namespace ruvo {

/// How many threads serve the completion port of a machine with so many processors: one each. One at least, as the
/// count is 0 where it cannot be told, and completions would wait for ever.
constexpr unsigned workerCount(unsigned processors)
{
    return std::max(1U, processors);
}

} // namespace ruvo
