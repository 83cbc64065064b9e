// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/spectrum.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <tuple>
#include <vector>

using namespace korvotoolbox;

template<int (*convert)(float*, int, bool), bool guard>
static int with(float* data, int length)
{
    return convert(data, length, guard);
}

TEST(Levels, FollowTheirFormulas)
{
    using Values = std::vector<float>;
    const std::tuple<int, int (*)(float* data, int length), Values, Values> cases[] = {
        {143, with<abs2dB, false>, {1, 10, 1e-3F, 0}, {0, 20, -60, -INFINITY}},
        {143, with<abs2dB, true>, {1, 10, 0, 9e-9F}, {0, 20, -180, -160}},
        {144, with<pwr2dB, false>, {1, 100, 1e-3F, 0}, {0, 20, -30, -INFINITY}},
        {144, with<pwr2dB, true>, {1, 100, 0, 9e-9F}, {0, 20, -90, -80}},
        {146, dB2pwr, {0, 10, -30, 1000, -INFINITY}, {1, 10, 1e-3F, INFINITY, 0}},
        {145, dB2magn, {0, 20, -20, 40, 10}, {0, 1, 1, 1024, 1.0F / 1024}},
    };
    for (const auto& [refused, convert, in, expected] : cases)
    {
        auto values = in;
        EXPECT_EQ(convert(nullptr, 1), refused);
        EXPECT_EQ(convert(values.data(), 0), refused);
        EXPECT_EQ(values, in);
        EXPECT_EQ(convert(values.data(), static_cast<int>(values.size())), 0);
        for (std::size_t i = 0; i < values.size(); ++i)
            EXPECT_FLOAT_EQ(values[i], expected[i]) << refused << ' ' << in[i];
    }
}

TEST(RollOff, CutsOneSideOfTheCorner)
{
    // 6.02 dB per octave make the gain the ratio itself, or its inverse.
    const auto halving = static_cast<float>(-20.0 * std::log10(2.0));
    // With one bin per Hz the corner's bin is its frequency; 64 x 1001 / 24000 = 2.67 is rounded up.
    for (const auto& [bins, corner, cornerBin] : {std::tuple{24000, 1000, 1000}, {64, 1001, 3}})
        for (const bool below : {false, true})
        {
            std::vector<float> spectrum(static_cast<std::size_t>(bins) + 3, 1.0F);
            ASSERT_TRUE(applyRollOffToSpectrum(&spectrum[1], bins, halving, corner, 48000, below));
            for (int k = -1; k <= bins + 1; ++k)
            {
                const auto ratio =
                    static_cast<float>(below ? k + 1 : k - cornerBin + 1) / static_cast<float>(cornerBin);
                const bool isCut = k >= 0 && k <= bins && (below ? k <= cornerBin : k >= cornerBin);
                const float expected = !isCut ? 1.0F : below ? ratio : 1.0F / ratio;
                ASSERT_NEAR(spectrum[static_cast<std::size_t>(k + 1)] / expected, 1.0F, 1e-5F) << k;
            }
        }
}

TEST(RollOff, RefusesWhatItCannotUse)
{
    const std::tuple<int, float, int, int, bool> cases[] = {
        {64, -6, 1000, 48000, true},       {63, -6, 1000, 48000, false},     {64, 0, 1000, 48000, false},
        {64, -96, 1000, 48000, true},      {64, -96.5F, 1000, 48000, false}, {64, NAN, 1000, 48000, false},
        {64, -6, 4, 48000, false},         {64, -6, 5, 48000, true},         {64, -6, 23989, 48000, true},
        {64, -6, 23990, 48000, false},     {64, -6, INT_MIN, 48000, false},  {64, -6, 1000, 48001, false},
        {48000, -6, 7, 48000, false},                                        // 4 x 2 bins per Hz
        {48000, -6, 8, 48000, true},       {240000, -6, 23960, 48000, true}, // 4 x 10 bins per Hz
        {240000, -6, 23961, 48000, false},
    };
    for (const auto& [bins, rollOff, corner, rate, runs] : cases)
    {
        std::vector<float> spectrum(static_cast<std::size_t>(bins) + 1, 1.0F);
        const auto before = spectrum;
        EXPECT_EQ(applyRollOffToSpectrum(spectrum.data(), bins, rollOff, corner, rate, true), runs)
            << bins << ' ' << rollOff << ' ' << corner << ' ' << rate;
        EXPECT_EQ(spectrum != before, runs);
    }
    EXPECT_FALSE(applyRollOffToSpectrum(nullptr, 64, -6.0F, 1000, 48000, true));
}

TEST(LogSpecIndex, FindsTheNearestPoint)
{
    // With 4 points from 20 to 20000: 20, 200, 2000, 20000. Halfway from 20 to 200 is 63.2.
    const std::tuple<float, float, float, int, int> cases[] = {
        {20, 20000, 20, 4, 0},       {63, 20000, 20, 4, 0},     {63.5F, 20000, 20, 4, 1},
        {2000, 20000, 20, 4, 2},     {20000, 20000, 20, 4, 3},  {20000, 20000, 20, 1000, 999},
        {0.5F, 192000, 0.5F, 10, 0}, {19.9F, 20000, 20, 4, -1}, {20001, 20000, 20, 4, -1},
        {100, 20, 20000, 4, -1},     {100, 192001, 20, 4, -1},  {100, 20000, 0.4F, 4, -1},
        {100, 20000, 20, 1, 0},      {100, 100, 100, 4, 0},     {NAN, 20000, 20, 4, 0},
        {100, 20000, 20, 0, -1},
    };
    for (const auto& [frequency, highest, lowest, points, expected] : cases)
        EXPECT_EQ(getLogSpecIndex(frequency, highest, lowest, points), expected)
            << frequency << " in " << lowest << " to " << highest;
}
