// SPDX-License-Identifier: GPL-3.0-or-later
#include "apps/krv/time_statistics.h"

#include <gtest/gtest.h>

using krv::CTimeStatistics;

namespace {

TEST(TimeStatistics, TellsQuantilesWithinAHundredth)
{
    for (const std::int64_t unit : {1, 37, 1000, 1000000})
    {
        CTimeStatistics times;
        for (std::int64_t i = 1000; i >= 1; --i)
            times.add(std::chrono::nanoseconds(i * unit));
        const double seconds = 1e-9 * static_cast<double>(unit);
        EXPECT_NEAR(times.median(), 500 * seconds, 5 * seconds);
        EXPECT_NEAR(times.percentile99(), 990 * seconds, 10 * seconds);
        EXPECT_DOUBLE_EQ(times.maximum(), 1000 * seconds);
        EXPECT_EQ(times.count(), 1000U);
    }
}

} // namespace
