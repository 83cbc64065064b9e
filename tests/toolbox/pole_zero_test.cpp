// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/pole_zero.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <tuple>
#include <vector>

using namespace korvotoolbox;

TEST(PoleZero, KeepsZerosWithinAnIntervalInTheirOrder)
{
    const std::vector<double> all{0.75, 0.0, 0.5, 1.0, 0.25, -0.1, 0.5};
    const std::tuple<double, double, bool, std::vector<double>> cases[] = {
        {6000, 18000, true, {0.75, 0.5, 0.25, 0.5}},
        {24000, 1e9, true, {1.0}},
        {100, 200, true, {}},
        {-1, 100, false, all},
        {100, 100, false, all},
        {24001, 25000, false, all},
        {NAN, 100, false, all},
        {100, NAN, false, all}};
    for (const auto& [low, high, done, expected] : cases)
    {
        std::vector<cplxZeroPolarForm> zeros;
        for (const double angle : all)
            zeros.push_back({angle, 0.9});
        EXPECT_EQ(discardZerosOutsideFreqInterval(zeros, 48000, low, high), done) << low;
        EXPECT_TRUE(std::ranges::equal(zeros, expected, {}, &cplxZeroPolarForm::angle)) << low;
    }
}

TEST(PoleZero, ScalesAllPolesAlike)
{
    using poles_t = std::vector<std::complex<double>>;
    const auto safe = [](poles_t poles, double radius) {
        EXPECT_TRUE(scalePolesToSafeMaxRadius(poles.data(), static_cast<int>(poles.size()), radius));
        return poles;
    };
    EXPECT_EQ(safe({{0.3, 0.4}, {-1.2, 1.6}, {0.0, -1.0}}, 0.5),
              (poles_t{{0.075, 0.1}, {-0.3, 0.4}, {0.0, -0.25}}));
    poles_t poles{{0.3, 0.4}, {-0.6, 0.8}};
    EXPECT_EQ(safe(poles, 1.0), poles);
    for (const double radius : {-0.1, 1.1, static_cast<double>(NAN)})
        EXPECT_FALSE(scalePolesToSafeMaxRadius(poles.data(), 2, radius));
    EXPECT_FALSE(scalePolesToSafeMaxRadius(poles.data(), 0, 0.5));
    EXPECT_FALSE(scalePolesToSafeMaxRadius(nullptr, 2, 0.5));
    EXPECT_EQ(poles, (poles_t{{0.3, 0.4}, {-0.6, 0.8}}));
}
