#pragma once

#include "common/winsock_headers.h"

#include <cstddef>
#include <memory>
#include <new>

namespace ruvo {

struct PageFree
{
    void operator()(void *pages) const { VirtualFree(pages, 0, MEM_RELEASE); }
};
/// A large buffer in pages of its own: one that was never filled costs next to nothing, and all of it goes back to
/// the system at once. From the heap, thousands of them leave it as large as it ever was.
template<typename Byte>
using PageBuffer = std::unique_ptr<Byte[], PageFree>;

/// Zeroed. std::bad_alloc if there is no memory.
template<typename Byte>
PageBuffer<Byte> makePageBuffer(std::size_t size)
{
    void *pages = VirtualAlloc(nullptr, size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
    if (!pages)
        throw std::bad_alloc();
    return PageBuffer<Byte>(static_cast<Byte *>(pages));
}

} // namespace ruvo
