#pragma once

// What the child can tell of how it was started, one fact a line.

#include <string>
#include <vector>

namespace ruvo::winehost {

void tellHandles();
void tellCommandLine();
void tellArguments(const std::vector<std::wstring> &arguments);
void tellDirectory();
void tellEnvironment(const std::wstring &name);
void tellConsole(bool interruptsIgnored);
void tellStartup();
void tellPid();

} // namespace ruvo::winehost
