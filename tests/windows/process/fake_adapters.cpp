#include "windows/process/fake_adapters.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace ruvo::test {

ULONG FakeAdapters::get(ULONG family, ULONG flags, PVOID reserved, PIP_ADAPTER_ADDRESSES buffer, PULONG size)
{
    EXPECT_EQ(family, ULONG{AF_UNSPEC});
    EXPECT_EQ(flags, ULONG{GAA_FLAG_INCLUDE_PREFIX});
    EXPECT_EQ(reserved, nullptr);
    if (!buffer) {
        ++queries;
        if (onQuery)
            onQuery(queries);
        *size = static_cast<ULONG>(adapters.size() * sizeof(Block));
        // A machine without adapters has no list, not an empty one.
        return adapters.empty() ? ULONG{ERROR_NO_DATA} : sizeResult;
    }

    EXPECT_EQ(*size, adapters.size() * sizeof(Block));
    const auto *bytes = reinterpret_cast<const char *>(buffer);
    EXPECT_TRUE(std::all_of(bytes, bytes + *size, [](char byte) { return byte == 0; }));
    if (listResult != NO_ERROR)
        return listResult;
    auto *blocks = reinterpret_cast<Block *>(buffer);
    for (std::size_t i = 0; i < adapters.size(); ++i) {
        Block &block = blocks[i];
        adapters[i].name.copy(block.name, std::size(block.name) - 1);
        adapters[i].guid.copy(block.guid, std::size(block.guid) - 1);
        block.adapter.FriendlyName = block.name;
        block.adapter.AdapterName = block.guid;
        block.adapter.OperStatus = adapters[i].up ? IfOperStatusUp : IfOperStatusDown;
        block.adapter.Next = i + 1 < adapters.size() ? &blocks[i + 1].adapter : nullptr;
    }
    return NO_ERROR;
}

} // namespace ruvo::test
