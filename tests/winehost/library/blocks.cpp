#include "blocks.h"

#include <cstdlib>
#include <map>
#include <mutex>

namespace ruvo::winehost {

namespace {

std::mutex s_mutex;
std::map<void *, unsigned long> s_blocks;
unsigned long s_lastNumber = 0;

} // namespace

void *allocateBlock(std::size_t size, unsigned long &number)
{
    // An empty block is a block of its own too.
    void *block = std::calloc(size + 1, 1);
    const std::lock_guard lock(s_mutex);
    number = ++s_lastNumber;
    s_blocks.emplace(block, number);
    return block;
}

unsigned long freeBlock(void *block)
{
    const std::lock_guard lock(s_mutex);
    const auto found = s_blocks.find(block);
    if (found == s_blocks.end())
        return 0;
    const unsigned long number = found->second;
    s_blocks.erase(found);
    std::free(block);
    return number;
}

} // namespace ruvo::winehost
