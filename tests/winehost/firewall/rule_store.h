#pragma once

#include "firewall/firewall_rule.h"

#include <vector>

namespace ruvo::winehost {

// The rules of the machine, in `firewall-rules.json` of the bench's folder: an array, in the order in which they were
// added. They outlive the process. Names need not be unique, as Windows keeps rules under keys of its own.

std::vector<RuleProperties> storedRules();

/// False if the file cannot be written.
bool storeRule(const RuleProperties &rule);

/// Of several rules of that name (in capital or small letters) the one that was added first. NO_ERROR,
/// ERROR_FILE_NOT_FOUND where there is none, or what writing the file has failed with.
DWORD removeStoredRule(const wchar_t *name);

} // namespace ruvo::winehost
