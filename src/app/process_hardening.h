#pragma once

namespace ruvo {

/// Narrows where this process takes DLLs from, for as long as it lives: those that are loaded by name alone come from
/// System32, and none from another machine or from a file of low integrity. Before anything else in the process. What
/// a version of Windows does not know is left out, in silence: there is no log yet. Children inherit nothing of it.
void hardenProcess();

} // namespace ruvo
