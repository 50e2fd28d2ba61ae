#pragma once

namespace ruvo::test {

// Where Wine does less than Windows. A test that makes an exception for one has a companion that fails once Wine
// has closed the gap.

/// Wine 8 looks up the end of a file opened for appending and then writes there: threads that append at once may
/// write over each other's text. Windows, like O_APPEND, does it in one step.
bool wineAppendsInTwoSteps();

} // namespace ruvo::test
