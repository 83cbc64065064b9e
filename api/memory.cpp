// SPDX-License-Identifier: GPL-3.0-or-later
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "api/krv.h"

namespace {

constexpr int32_t kMaxSize = 0x4000000;

} // namespace

//   raw            pointer - 4       pointer
//    |  <- unused -> |  offset (4 B)  |  size bytes ...
//    |<----------- offset ----------->|
//
// The offset lies between 1 and `alignment`, never 0, so that its word has room even below an aligned raw
// address: the plain allocator gives addresses that are multiples of 16, and the least offset is then 4.
void* krv_malloc(int32_t size, uint32_t alignment) noexcept
{
    if ((alignment != 4 && alignment != 8 && alignment != 16) || size < 1 || size > kMaxSize)
        return nullptr;
    auto* raw = static_cast<unsigned char*>(std::malloc(static_cast<std::size_t>(size) + alignment));
    if (raw == nullptr)
        return nullptr;
    const auto excess = static_cast<uint32_t>(reinterpret_cast<std::uintptr_t>(raw) & (alignment - 1));
    const uint32_t offset = alignment - excess;
    std::memcpy(raw + offset - sizeof offset, &offset, sizeof offset);
    return raw + offset;
}

void krv_free(void* pointer) noexcept
{
    if (pointer == nullptr)
        return;
    auto* bytes = static_cast<unsigned char*>(pointer);
    uint32_t offset;
    std::memcpy(&offset, bytes - sizeof offset, sizeof offset);
    std::free(bytes - offset);
}
