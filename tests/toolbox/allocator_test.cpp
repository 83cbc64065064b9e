// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/allocator.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tests/toolbox/fault_injection.h"

using namespace korvotoolbox;
using korvotest::readAccounting;

TEST(Allocator, GivesAlignedBlocksAndCountsWhatWasAskedFor)
{
    const auto before = readAccounting();
    std::vector<void*> blocks;
    unsigned long long expected = before.current;
    for (const unsigned long size : {0UL, 1UL, 15UL, 16UL, 17UL, 4099UL, 1UL << 24})
    {
        blocks.push_back(dtb_alloc(size));
        ASSERT_NE(blocks.back(), nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(blocks.back()) % 16, 0U) << size;
        std::memset(blocks.back(), 0xEE, size);
        EXPECT_EQ(readAccounting().current, expected += size);
    }
    for (void* block : blocks)
        dtb_free(block);
    dtb_free(nullptr);
    EXPECT_EQ(readAccounting().current, before.current);
    EXPECT_GE(readAccounting().most, expected) << "the highest value stays";
}

TEST(Allocator, ReportsAFailureAndLeavesTheCountersAsTheyWere)
{
    const auto before = readAccounting();
    const korvotest::CFaults faults(0);
    for (const unsigned long size : {5UL, ULONG_MAX - 15, ULONG_MAX}) // two wrap around with the header
    {
        EXPECT_EQ(readAccounting(size).message, "dtb_alloc failed size=" + std::to_string(size) + " (max " +
                                                    std::to_string(before.most) + " bytes, current " +
                                                    std::to_string(before.current) + ")");
        EXPECT_EQ(dtb_alloc(size), nullptr) << "and no hook is no reason to crash";
    }
    EXPECT_EQ(readAccounting().current, before.current);
    EXPECT_EQ(readAccounting().most, before.most);
}
