// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/allocator.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include "tests/toolbox/fault_injection.h"

using namespace korvotoolbox;
using korvotest::readAccounting;

namespace {

void writeMessage(void* user, const char* format, ...)
{
    char text[256];
    va_list values;
    va_start(values, format);
    std::vsnprintf(text, sizeof(text), format, values);
    va_end(values);
    *static_cast<std::string*>(user) += text;
}

} // namespace

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
    for (const unsigned long size :
         {5UL, ULONG_MAX - 15, ULONG_MAX}) // with the header added, two wrap around
    {
        std::string message;
        dtb_setlogfunction(writeMessage, &message);
        EXPECT_EQ(dtb_alloc(size), nullptr);
        EXPECT_EQ(message, "dtb_alloc failed size=" + std::to_string(size) + " (max " +
                               std::to_string(before.most) + " bytes, current " +
                               std::to_string(before.current) + ")");
        dtb_setlogfunction(nullptr, nullptr);
        EXPECT_EQ(dtb_alloc(size), nullptr) << "and no hook is no reason to crash";
    }
    EXPECT_EQ(readAccounting().current, before.current);
    EXPECT_EQ(readAccounting().most, before.most);
}

TEST(AllocatorThreads, BalancesUnderContention)
{
    const auto before = readAccounting();
    {
        const auto work = [] {
            for (unsigned long i = 1; i < 2000; ++i)
                dtb_free(dtb_alloc(i));
        };
        const std::jthread first(work), second(work), third(work);
    }
    EXPECT_EQ(readAccounting().current, before.current);
}
