// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/fast_trig.h"

#include <gtest/gtest.h>

#include <cmath>

TEST(FastTrig, FollowsSineAndCosineOverThreePi)
{
    for (double x = -9.4247; x <= 9.4247; x += 1e-3)
    {
        ASSERT_NEAR(korvotoolbox::fastSin(static_cast<float>(x)), std::sin(x), 1.1e-3) << x;
        ASSERT_NEAR(korvotoolbox::fastCos(static_cast<float>(x)), std::cos(x), 1.1e-3) << x;
    }
    // At pi / 6 the parabola is 5/9.
    EXPECT_NEAR(korvotoolbox::fastSin(0.52359878F), 0.775 * 5.0 / 9.0 + 0.225 * 25.0 / 81.0, 1e-6);
    // 4 pi is taken back once, to 2 pi, where the parabola is -8.
    EXPECT_NEAR(korvotoolbox::fastSin(12.5663706F), (8 * -8 + 8) * 0.225 - 8, 1e-3);
}
