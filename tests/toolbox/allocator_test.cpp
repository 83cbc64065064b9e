// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/allocator.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
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
    unsigned long total = 0;
    for (const unsigned long size : {0UL, 1UL, 15UL, 16UL, 17UL, 4099UL, 1UL << 24})
    {
        blocks.push_back(dtb_alloc(size));
        ASSERT_NE(blocks.back(), nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(blocks.back()) % 16, 0U) << size;
        std::memset(blocks.back(), 0xEE, size);
        total += size;
        EXPECT_EQ(readAccounting().current, before.current + total);
    }
    EXPECT_GE(readAccounting().most, before.current + total);
    for (void* block : blocks)
        dtb_free(block);
    dtb_free(nullptr);
    EXPECT_EQ(readAccounting().current, before.current);
    EXPECT_GE(readAccounting().most, before.current + total) << "the highest value stays";
}

TEST(Allocator, ReportsAFailureAndLeavesTheCountersAsTheyWere)
{
    void* held = dtb_alloc(1000);
    const auto before = readAccounting();
    // The last two would wrap around with the header added.
    for (const unsigned long size : {5UL, ULONG_MAX - 16, ULONG_MAX - 15, ULONG_MAX})
    {
        const korvotest::CFailingAllocations failing(0);
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
    dtb_free(held);
}

TEST(AllocatorThreads, BalancesUnderContention)
{
    const auto before = readAccounting();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
    {
        threads.emplace_back([] {
            for (unsigned long i = 1; i < 2000; ++i)
                dtb_free(dtb_alloc(i));
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(readAccounting().current, before.current);
}
