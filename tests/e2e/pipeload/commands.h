#pragma once

#include "pipeload/arguments.h"

namespace ruvo::test {

enum ExitStatus { ExitPassed = 0, ExitFailed = 1, ExitUsage = 2 };

/// Each prints one line of JSON at its end and returns an ExitStatus.
int runLoad(Arguments arguments);
int runStorm(Arguments arguments);
int runSilent(Arguments arguments);
int runDeaf(Arguments arguments);
int runRaw(Arguments arguments);

} // namespace ruvo::test
