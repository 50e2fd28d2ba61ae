#include "process/launch_context.h"

namespace ruvo {

bool LaunchContext::hasExited() const
{
    return WaitForSingleObject(process.get(), 0) == WAIT_OBJECT_0;
}

} // namespace ruvo
