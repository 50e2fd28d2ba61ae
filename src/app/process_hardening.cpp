#include "app/process_hardening.h"

#include <windows.h>

namespace ruvo {

void hardenProcess()
{
    // The executable's own imports are loaded by now: load_configuration.cpp sees to those.
    SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);

    // Extension points stay allowed: without them Windows also leaves out layered Winsock providers, which some
    // machines need to reach the network. Set here, not by whoever starts us: that form would pass on to children.
    PROCESS_MITIGATION_IMAGE_LOAD_POLICY images{};
    images.NoRemoteImages = 1;
    images.NoLowMandatoryLabelImages = 1;
    SetProcessMitigationPolicy(ProcessImageLoadPolicy, &images, sizeof(images));
}

} // namespace ruvo
