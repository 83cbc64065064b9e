// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/fast_trig.h"

namespace korvotoolbox {

namespace {

constexpr float kPi = 3.14159274F;
constexpr float kTwoPi = 6.28318548F;
constexpr float kHalfPi = 1.57079637F;

float wrapOnce(float x)
{
    if (x < -kPi)
        return x + kTwoPi;
    return x > kPi ? x - kTwoPi : x;
}

float sineOfWrapped(float x)
{
    constexpr float kBlend = 0.225F;
    const float c = x < 0.0F ? 0.405284733F : -0.405284733F;
    const float y = 1.27323949F * x + x * (c * x);
    return y < 0.0F ? (-y * y - y) * kBlend + y : (y * y - y) * kBlend + y;
}

} // namespace

float fastSin(float x)
{
    return sineOfWrapped(wrapOnce(x));
}

float fastCos(float x)
{
    const float shifted = wrapOnce(x) + kHalfPi;
    return sineOfWrapped(shifted > kPi ? shifted - kTwoPi : shifted);
}

} // namespace korvotoolbox
