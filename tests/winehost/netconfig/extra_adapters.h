#pragma once

#include "netconfig/network_call.h"

#include <string>
#include <vector>

namespace ruvo::winehost {

/// An adapter as the list of adapters shows it.
struct ShownAdapter
{
    GUID guid{};
    std::wstring friendlyName;
    std::wstring description;
    IF_OPER_STATUS status = IfOperStatusDown;
};

/// The adapters that exist in `adapters.txt` only, for programs that wait for one: "up|down GUID NAME" a line, the
/// name to the end of the line.
std::vector<ShownAdapter> extraAdapters();

} // namespace ruvo::winehost
