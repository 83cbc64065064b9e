// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/helpers.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <tuple>
#include <utility>

using namespace korvotoolbox;

namespace {

bool isTransformSize(long size)
{
    for (const auto& [factor, most] : {std::pair{2, 21}, {3, 3}, {5, 3}, {7, 3}, {11, 1}})
        for (int i = 0; i < most && size % factor == 0; ++i)
            size /= factor;
    return size == 1;
}

} // namespace

TEST(Helpers, RoundHalvesAwayFromZeroInTheirOwnPrecision)
{
    const std::pair<double, int> cases[] = {
        {0.0, 0},   {0.5, 1},        {-0.5, -1},       {0.4, 0},
        {-2.5, -3}, {1e30, INT_MAX}, {-1e30, INT_MIN}, {std::nan(""), INT_MIN}};
    for (const auto& [value, expected] : cases)
    {
        EXPECT_EQ(korvotoolbox::round(value), expected) << value;
        EXPECT_EQ(korvotoolbox::round(static_cast<float>(value)), expected) << value;
    }
    // The sum of these and a half is not representable and goes to the even neighbour.
    EXPECT_EQ(korvotoolbox::round(std::nextafter(0.5F, 0.0F)), 1);
    EXPECT_EQ(korvotoolbox::round(8388609.0F), 8388610);
    EXPECT_EQ(korvotoolbox::round(8388609.0), 8388609);
}

TEST(Helpers, FindTheFirstLargestValue)
{
    const auto expectPeaks = []<typename T>(T none) {
        const T values[] = {-3, 2, 3, 2, 3, -7, 7, none};
        for (const auto& [length, largest, largestMagnitude] :
             {std::tuple{0, -1, -1}, {-1, -1, -1}, {5, 2, 0}, {7, 6, 5}})
        {
            EXPECT_EQ(maxIdx(values, length), largest);
            EXPECT_EQ(maxAbsIdx(values, length), largestMagnitude);
        }
        EXPECT_EQ(maxIdx(values, 8), 6) << "no number is not the largest";
        EXPECT_EQ(maxIdx(static_cast<const T*>(nullptr), 1), 0);
        EXPECT_EQ(maxAbsIdx(static_cast<const T*>(nullptr), 7), -1);
    };
    expectPeaks(std::nanf(""));
    expectPeaks(std::nan(""));
}

TEST(Helpers, FourRatesAreSupported)
{
    for (int rate = -1; rate < 400000; ++rate)
        ASSERT_EQ(fsIsSupported(rate), rate == 44100 || rate == 48000 || rate == 88200 || rate == 96000);
}

TEST(Helpers, NearestTransformSizeIsTheNextOneUp)
{
    for (const int length : {INT_MIN, -1, 0, 7, INT_MAX})
        EXPECT_EQ(nearestFFTWSize(length), 0) << length;
    for (int length = 8; length < 200000; length += 1 + length / 50)
    {
        long next = length;
        while (!isTransformSize(next))
            ++next;
        EXPECT_EQ(nearestFFTWSize(length), next) << length;
    }
}
