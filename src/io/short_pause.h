#pragma once

namespace ruvo {

/// About 100 microseconds without using the processor. Sleep would round that up to as much as 15 ms.
void shortPause();

} // namespace ruvo
