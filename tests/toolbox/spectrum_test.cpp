// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/spectrum.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <vector>

#include "tests/support/guarded_buffer.h"

using namespace korvotoolbox;

namespace {

/// 6.02 dB: a slope of this many decibels per octave makes the gain the ratio itself, or its inverse.
const float kHalving = static_cast<float>(-20.0 * std::log10(2.0));

} // namespace

TEST(Levels, FollowTheirFormulas)
{
    struct SCase
    {
        int refused;
        int (*convert)(float* data, int length);
        std::vector<float> in, expected;
    };
    const SCase cases[] = {
        {143,
         [](float* x, int n) { return abs2dB(x, n, false); },
         {1, 10, 1e-3F, 0},
         {0, 20, -60, -INFINITY}},
        {143, [](float* x, int n) { return abs2dB(x, n, true); }, {1, 10, 0, 9e-9F}, {0, 20, -180, -160}},
        {144,
         [](float* x, int n) { return pwr2dB(x, n, false); },
         {1, 100, 1e-3F, 0},
         {0, 20, -30, -INFINITY}},
        {144, [](float* x, int n) { return pwr2dB(x, n, true); }, {1, 100, 0, 9e-9F}, {0, 20, -90, -80}},
        {146, dB2pwr, {0, 10, -30, 1000, -INFINITY}, {1, 10, 1e-3F, INFINITY, 0}},
        {145, dB2magn, {0, 20, -20, 40, 10}, {0, 1, 1, 1024, 1.0F / 1024}},
    };
    for (const SCase& c : cases)
    {
        auto values = c.in;
        EXPECT_EQ(c.convert(nullptr, 1), c.refused);
        EXPECT_EQ(c.convert(values.data(), 0), c.refused);
        EXPECT_EQ(values, c.in);
        EXPECT_EQ(c.convert(values.data(), static_cast<int>(values.size())), 0);
        for (std::size_t i = 0; i < values.size(); ++i)
        {
            if (std::isinf(c.expected[i]))
                EXPECT_EQ(values[i], c.expected[i]);
            else
                EXPECT_NEAR(values[i], c.expected[i], 2e-6F * std::max(1.0F, std::abs(c.expected[i])))
                    << "status " << c.refused << " of " << c.in[i];
        }
    }
}

TEST(RollOff, CutsOneSideOfTheCorner)
{
    // One bin per Hz, so that the corner's bin is its frequency.
    constexpr int kBins = 24000;
    constexpr int kCorner = 1000;
    for (const bool below : {false, true})
    {
        korvotest::CGuardedBuffer<float> buffer(kBins + 1, 4);
        buffer.assign(std::vector<float>(kBins + 1, 1.0F));
        ASSERT_TRUE(applyRollOffToSpectrum(buffer.data(), kBins, kHalving, kCorner, 48000, below));
        EXPECT_TRUE(buffer.intact());
        for (int k = 0; k <= kBins; ++k)
        {
            float expected = 1.0F;
            if (below && k <= kCorner)
                expected = static_cast<float>(k + 1) / 1000.0F;
            if (!below && k >= kCorner)
                expected = 1000.0F / static_cast<float>(k - kCorner + 1);
            ASSERT_NEAR(buffer.get(static_cast<std::size_t>(k)) / expected, 1.0F, 1e-5F) << k;
        }
    }
    // The corner is rounded up to a bin: 64 x 1001 / 24000 = 2.67.
    std::vector<float> spectrum(65, 1.0F);
    ASSERT_TRUE(applyRollOffToSpectrum(spectrum.data(), 64, 2.0F * kHalving, 1001, 48000, false));
    EXPECT_EQ(spectrum[2], 1.0F);
    EXPECT_NEAR(spectrum[3], 9.0F, 1e-4F);
}

TEST(RollOff, RefusesWhatItCannotUse)
{
    struct SCase
    {
        int bins;
        float rollOff;
        int corner, rate;
        bool runs;
    };
    const SCase cases[] = {
        {64, -6, 1000, 48000, true},       {63, -6, 1000, 48000, false},     {64, 0, 1000, 48000, false},
        {64, -96, 1000, 48000, true},      {64, -96.5F, 1000, 48000, false}, {64, NAN, 1000, 48000, false},
        {64, -6, 4, 48000, false},         {64, -6, 5, 48000, true},         {64, -6, 23989, 48000, true},
        {64, -6, 23990, 48000, false},     {64, -6, INT_MIN, 48000, false},  {64, -6, 1000, 48001, false},
        {48000, -6, 7, 48000, false},                                        // 4 x 2 bins per Hz
        {48000, -6, 8, 48000, true},       {240000, -6, 23960, 48000, true}, // 4 x 10 bins per Hz
        {240000, -6, 23961, 48000, false},
    };
    for (const SCase& c : cases)
    {
        std::vector<float> spectrum(static_cast<std::size_t>(c.bins) + 1, 1.0F);
        const auto before = spectrum;
        EXPECT_EQ(applyRollOffToSpectrum(spectrum.data(), c.bins, c.rollOff, c.corner, c.rate, true), c.runs)
            << c.bins << ' ' << c.rollOff << ' ' << c.corner << ' ' << c.rate;
        EXPECT_EQ(spectrum != before, c.runs);
    }
    EXPECT_FALSE(applyRollOffToSpectrum(nullptr, 64, -6.0F, 1000, 48000, true));
}

TEST(LogSpecIndex, FindsTheNearestPoint)
{
    struct SCase
    {
        float frequency, highest, lowest;
        int points, expected;
    };
    // With 4 points from 20 to 20000: 20, 200, 2000, 20000. Halfway from 20 to 200 is 63.2.
    const SCase cases[] = {
        {20, 20000, 20, 4, 0},       {63, 20000, 20, 4, 0},     {63.5F, 20000, 20, 4, 1},
        {2000, 20000, 20, 4, 2},     {20000, 20000, 20, 4, 3},  {20000, 20000, 20, 1000, 999},
        {0.5F, 192000, 0.5F, 10, 0}, {19.9F, 20000, 20, 4, -1}, {20001, 20000, 20, 4, -1},
        {100, 20, 20000, 4, -1},     {100, 192001, 20, 4, -1},  {100, 20000, 0.4F, 4, -1},
        {100, 20000, 20, 1, 0},      {100, 100, 100, 4, 0},     {NAN, 20000, 20, 4, 0},
        {100, 20000, 20, 0, -1},
    };
    for (const SCase& c : cases)
        EXPECT_EQ(getLogSpecIndex(c.frequency, c.highest, c.lowest, c.points), c.expected)
            << c.frequency << " in " << c.lowest << " to " << c.highest;
}
