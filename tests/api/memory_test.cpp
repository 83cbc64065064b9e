// SPDX-License-Identifier: GPL-3.0-or-later
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "api/krv.h"

namespace {

TEST(Memory, GivesAlignedBlocksOfTheWholeSize)
{
    for (const uint32_t alignment : {4U, 8U, 16U})
        for (const int32_t size : {1, 3, 4, 17, 4096, 0x4000000}) {
            void* block = krv_malloc(size, alignment);
            ASSERT_NE(block, nullptr) << size << ' ' << alignment;
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignment, 0U);
            std::memset(block, 0xFF, static_cast<std::size_t>(size));
            krv_free(block);
        }
}

TEST(Memory, RefusesWhatIsOutOfRange)
{
    struct
    {
        int32_t size;
        uint32_t alignment;
    } const refused[] = {{0, 16}, {-1, 16}, {INT32_MIN, 4}, {0x4000001, 16}, {INT32_MAX, 8},
                         {1, 0},  {1, 2},   {1, 12},        {1, 32}};
    for (const auto& row : refused)
        EXPECT_EQ(krv_malloc(row.size, row.alignment), nullptr) << row.size << ' ' << row.alignment;
    krv_free(nullptr);
}

} // namespace
