// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/aligned_memory.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace korvodsp {

// The raw pointer lies in the word just below the block, which is there because malloc() aligns to more than
// a word.
void* alignedAlloc(std::size_t bytes) noexcept
{
    if (bytes == 0 || bytes >= kMemoryLimit)
        return nullptr;
    void* raw = std::malloc(bytes + kMemoryAlignment);
    if (raw == nullptr)
        return nullptr;
    const std::size_t pastBoundary = reinterpret_cast<std::uintptr_t>(raw) % kMemoryAlignment;
    char* block = static_cast<char*>(raw) + kMemoryAlignment - pastBoundary;
    std::memcpy(block - sizeof(raw), &raw, sizeof(raw));
    return block;
}

void* alignedAllocZeroed(std::size_t bytes) noexcept
{
    void* block = alignedAlloc(bytes);
    if (block != nullptr)
        std::memset(block, 0, bytes);
    return block;
}

void alignedFree(void* memory) noexcept
{
    if (memory == nullptr)
        return;
    void* raw = nullptr;
    std::memcpy(&raw, static_cast<char*>(memory) - sizeof(raw), sizeof(raw));
    std::free(raw);
}

} // namespace korvodsp
