// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/helpers.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <limits>
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

template<typename T>
void expectPeaks()
{
    const T values[] = {-3, 2, 3, 2, 3, -7, 7, std::numeric_limits<T>::quiet_NaN()};
    EXPECT_EQ(maxIdx(values, 0), -1);
    EXPECT_EQ(maxIdx(static_cast<const T*>(nullptr), 1), 0);
    EXPECT_EQ(maxIdx(values, 5), 2) << "the first of equals";
    EXPECT_EQ(maxIdx(values, 8), 6);
    EXPECT_EQ(maxAbsIdx(values, 0), -1);
    EXPECT_EQ(maxAbsIdx(static_cast<const T*>(nullptr), 7), -1);
    EXPECT_EQ(maxAbsIdx(values, 5), 0);
    EXPECT_EQ(maxAbsIdx(values, 7), 5) << "the first of equals, whatever their signs";
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
    expectPeaks<float>();
    expectPeaks<double>();
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
    EXPECT_EQ(nearestFFTWSize(1025), 1029);
    EXPECT_EQ(nearestFFTWSize(65537), 65856);
    for (int length = 8; length < 200000; length += 1 + length / 50)
    {
        long next = length;
        while (!isTransformSize(next))
            ++next;
        EXPECT_EQ(nearestFFTWSize(length), next) << length;
    }
}
