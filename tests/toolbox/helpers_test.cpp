// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/helpers.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "toolbox/numeric_kernels.h"

using namespace korvotoolbox;

namespace {

bool isTransformSize(std::int64_t size)
{
    const auto strip = [&size](int factor, int most) {
        for (int i = 0; i < most && size % factor == 0; ++i)
            size /= factor;
    };
    strip(2, 21);
    strip(3, 3);
    strip(5, 3);
    strip(7, 3);
    strip(11, 1);
    return size == 1;
}

template<typename T>
void expectPeaks()
{
    const T nan = std::numeric_limits<T>::quiet_NaN();
    const std::vector<T> values{T(-3), T(2), T(3), T(2), T(3), T(-7), T(7)};
    EXPECT_EQ(maxIdx(values.data(), 0), -1);
    EXPECT_EQ(maxIdx(static_cast<const T*>(nullptr), 1), 0);
    EXPECT_EQ(maxIdx(values.data(), 5), 2) << "the first of equals";
    EXPECT_EQ(maxIdx(values.data(), 7), 6);
    const std::vector<T> withNan{T(1), nan, T(2)};
    EXPECT_EQ(maxIdx(withNan.data(), 3), 2);

    EXPECT_EQ(maxAbsIdx(values.data(), 0), -1);
    EXPECT_EQ(maxAbsIdx(static_cast<const T*>(nullptr), 7), -1);
    EXPECT_EQ(maxAbsIdx(values.data(), 1), 0);
    EXPECT_EQ(maxAbsIdx(values.data(), 5), 0);
    EXPECT_EQ(maxAbsIdx(values.data(), 7), 5) << "the first of equals, whatever their signs";
}

} // namespace

TEST(Helpers, RoundHalvesAwayFromZeroInTheirOwnPrecision)
{
    struct SCase
    {
        double value;
        int expected;
    };
    for (const SCase& c : {SCase{0.0, 0},
                           {0.5, 1},
                           {-0.5, -1},
                           {0.4, 0},
                           {-0.4, 0},
                           {2.5, 3},
                           {-2.5, -3},
                           {1e30, INT_MAX},
                           {-1e30, INT_MIN},
                           {std::nan(""), INT_MIN}})
    {
        EXPECT_EQ(korvotoolbox::round(c.value), c.expected) << c.value;
        EXPECT_EQ(korvotoolbox::round(static_cast<float>(c.value)), c.expected) << c.value;
    }
    // The sum of these and a half is not representable and goes to the even neighbour.
    EXPECT_EQ(korvotoolbox::round(std::nextafter(0.5F, 0.0F)), 1);
    EXPECT_EQ(korvotoolbox::round(8388609.0F), 8388610);
    EXPECT_EQ(korvotoolbox::round(8388609.0), 8388609);
    EXPECT_EQ(korvotoolbox::round(2147483646.6), INT_MAX);
}

TEST(Helpers, FindTheFirstLargestValue)
{
    expectPeaks<float>();
    expectPeaks<double>();
}

TEST(Helpers, KnowFourRates)
{
    for (const int rate : {44100, 48000, 88200, 96000})
        EXPECT_TRUE(fsIsSupported(rate));
    for (const int rate : {0, -44100, 44101, 176400, 192000})
        EXPECT_FALSE(fsIsSupported(rate));
}

TEST(Helpers, NearestTransformSizeIsTheNextOneUp)
{
    for (const int length : {INT_MIN, -1, 0, 7, INT_MAX})
        EXPECT_EQ(nearestFFTWSize(length), 0) << length;
    EXPECT_EQ(nearestFFTWSize(1000), 1000);
    EXPECT_EQ(nearestFFTWSize(1023), 1024);
    EXPECT_EQ(nearestFFTWSize(1025), 1029);
    EXPECT_EQ(nearestFFTWSize(65537), 65856);
    for (int length = 8; length < 200000; length += 1 + length / 50)
    {
        std::int64_t next = length;
        while (!isTransformSize(next))
            ++next;
        EXPECT_EQ(nearestFFTWSize(length), next) << length;
    }
}

TEST(NumericKernels, PowerTakesTheArrayAsBase)
{
    float values[] = {-1.0F, 0.0F, 2.0F};
    vsPowx(3, values, 10.0F, values);
    EXPECT_EQ(values[0], 1.0F);
    EXPECT_EQ(values[1], 0.0F);
    EXPECT_EQ(values[2], 1024.0F);
    vsPowx(0, nullptr, 10.0F, nullptr);

    const float in[] = {0.0F, 1e-3F, 1.0F, 1e30F};
    float apart[4];
    float inPlace[] = {0.0F, 1e-3F, 1.0F, 1e30F};
    const int count = 4;
    vslog10_(&count, in, apart);
    vslog10_(&count, inPlace, inPlace);
    EXPECT_EQ(apart[0], -INFINITY);
    for (int i = 0; i < count; ++i)
        EXPECT_EQ(apart[i], inPlace[i]);
    EXPECT_FLOAT_EQ(apart[3], 30.0F);
}
