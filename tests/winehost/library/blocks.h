#pragma once

#include <cstddef>

namespace ruvo::winehost {

/// Memory that the program has to give back through the free function of the same API. Blocks are numbered, so
/// that the journal shows which ones were given back, and which never.
void *allocateBlock(std::size_t size, unsigned long &number);

/// The number of the freed block; 0 for what is no block (null, freed before, someone else's): that is left alone.
unsigned long freeBlock(void *block);

} // namespace ruvo::winehost
