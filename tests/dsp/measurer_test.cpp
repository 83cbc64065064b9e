// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/measurer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "tests/support/random.h"

namespace {

using korvodsp::CFMeasurer;

TEST(Measurer, ReadsTheLastWindowOfAStreamOfAnyBlocks)
{
    std::mt19937 random = korvotest::makeRandom(3402);
    const std::vector<float> noise = korvotest::makeNoise(random, 3000);
    for (const unsigned length : {1U, 7U, 16U, 480U, 5000U})
    {
        CFMeasurer meter(length);
        std::vector<float> squares(length, 0.0F);
        double sum = 0.0;
        std::size_t at = 0;
        for (const std::size_t block : {1U, 0U, 5U, 64U, 1000U, 1930U})
        {
            meter.process(noise.data() + at, static_cast<unsigned>(block));
            double exact = 0.0;
            for (const std::size_t end = at + block; at < end; ++at)
            {
                sum -= double{squares[at % length]};
                squares[at % length] = noise[at] * noise[at];
                sum += double{squares[at % length]};
            }
            for (std::size_t i = at - std::min<std::size_t>(at, length); i < at; ++i)
                exact += double{noise[i]} * double{noise[i]};
            ASSERT_EQ(meter.getCurrentRMS(), std::sqrt(static_cast<float>(sum / length))) << length;
            ASSERT_NEAR(meter.getCurrentRMS(), std::sqrt(exact / length), 1e-6) << length;
            ASSERT_EQ(meter.getCurrentPeak(), std::sqrt(*std::max_element(squares.begin(), squares.end())));
            ASSERT_EQ(meter.getCurrentCrestFactor(), meter.getCurrentRMS() / meter.getCurrentPeak());
        }
    }
}

TEST(Measurer, IgnoresSamplesWithoutAWindow)
{
    const std::vector<float> loud(64, 1.0F);
    // The second asks for 16 GiB, which is refused like memory that is not to be had.
    for (const unsigned length : {0U, std::numeric_limits<unsigned>::max()})
    {
        CFMeasurer meter(32);
        meter.process(loud.data(), 60);
        meter.reset(length);
        meter.process(loud.data(), 64);
        EXPECT_EQ(meter.getCurrentRMS(), 0.0F);
        EXPECT_EQ(meter.getCurrentPeak(), 0.0F);
        EXPECT_EQ(meter.getCurrentCrestFactor(), 1000.0F);
        meter.reset(32);
        meter.process(loud.data(), 60);
        EXPECT_EQ(meter.getCurrentRMS(), 1.0F) << "a new window starts it again";
        meter.reset(8);
        meter.process(loud.data(), 4);
        EXPECT_EQ(meter.getCurrentRMS(), std::sqrt(0.5F)) << "and a shorter one from its first slot";
        EXPECT_EQ(meter.getCurrentPeak(), 1.0F);
    }
}

TEST(Measurer, TakesAnOldSquareOffBeforeItAddsTheNewOne)
{
    const float samples[] = {1e10F, 0.5F};
    CFMeasurer meter(1);
    meter.process(samples, 2);
    EXPECT_EQ(meter.getCurrentRMS(), 0.5F);
}

} // namespace
