#include "netcfg/filter_rules.h"

namespace ruvo {

std::wstring pathOf(const PermittedProgram &program, const std::wstring &daemonPath)
{
    if (program.path.empty())
        return daemonPath;
    const std::size_t folderSize = daemonPath.find_last_of(L"\\/") + 1; // 0 without a folder: npos + 1
    return daemonPath.substr(0, folderSize).append(program.path);
}

} // namespace ruvo
