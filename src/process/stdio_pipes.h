#pragma once

#include "common/windows_handles.h"

namespace ruvo {

/// The three anonymous pipes of a child's standard streams. Only the child's ends are inheritable.
struct StdioPipes
{
    KernelHandle stdinRead; // the child's
    KernelHandle stdinWrite;
    KernelHandle stdoutRead;
    KernelHandle stdoutWrite; // the child's
    KernelHandle stderrRead;
    KernelHandle stderrWrite; // the child's
};

/// False (and logged) if one cannot be made; then none is left open. CreatePipe, SetHandleInformation.
bool createStdioPipes(StdioPipes &pipes);

} // namespace ruvo
