// SPDX-License-Identifier: GPL-3.0-or-later
#include <gmock/gmock.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "tests/support/processor.h"
#include "tests/support/random.h"

using korvotest::CProcessor;
using korvotest::sameChannels;
using korvotest::SSet;

namespace {

/// y(t) = sum of h(k) x(t-k), plus each section's response to x(t-n), in double precision.
std::vector<double> correct(const SSet& set, const std::vector<float>& input)
{
    const std::size_t n = set.taps.size();
    std::vector<double> output(input.size(), 0.0);
    for (std::size_t t = 0; t < input.size(); ++t)
        for (std::size_t k = 0; k < n && k <= t; ++k)
            output[t] += static_cast<double>(set.taps[k]) * static_cast<double>(input[t - k]);
    for (const std::vector<float>& section : set.sections)
    {
        double x1 = 0.0, y1 = 0.0, y2 = 0.0;
        for (std::size_t t = n; t < input.size(); ++t)
        {
            const auto x = static_cast<double>(input[t - n]);
            const double y = section[2] * x + section[3] * x1 - section[0] * y1 - section[1] * y2;
            x1 = x;
            y2 = y1;
            y1 = y;
            output[t] += y;
        }
    }
    return output;
}

/// Runs one channel's samples through the processor in blocks of the given length, as channel `channel` of
/// `channels`.
std::vector<float> run(krv_handle handle, std::vector<float> samples, std::size_t frames,
                       unsigned channels = 1, unsigned channel = 0)
{
    for (std::size_t start = 0; start < samples.size(); start += frames)
    {
        const std::size_t count = std::min(frames, samples.size() - start);
        std::vector<float> block(count * channels);
        for (std::size_t i = 0; i < count; ++i)
            block[i * channels + channel] = samples[start + i];
        EXPECT_EQ(
            krv_process(handle, block.data(), block.data(), static_cast<std::uint32_t>(count), channels),
            KRV_STATUS_OK);
        for (std::size_t i = 0; i < count; ++i)
            samples[start + i] = block[i * channels + channel];
    }
    return samples;
}

std::vector<float> impulse(std::size_t frames)
{
    std::vector<float> samples(frames, 0.0F);
    samples[0] = 1.0F;
    return samples;
}

} // namespace

TEST(Process, CorrectsEachChannelWithItsOwnFilter)
{
    std::mt19937 random = korvotest::makeRandom(7);
    auto channels = sameChannels(2, {{48000,
                                      false,
                                      korvotest::makeNoise(random, 100, 0.2F),
                                      {{-1.6F, 0.7F, 0.05F, 0.02F}, {0.3F, 0.1F, 0.2F, 0.0F}}}});
    channels[1].sets = {{48000, false, korvotest::makeNoise(random, 37, 0.2F)}};
    for (unsigned channel = 0; channel < 2; ++channel)
    {
        CProcessor processor(2, 300);
        processor.start(channels, 48000);
        const std::vector<float> input = korvotest::makeNoise(random, 3000);
        const std::vector<float> output = run(processor, input, 300, 2, channel);
        const std::vector<double> expected = correct(channels[channel].sets[0], input);
        // 100 products of magnitude 0.2 and a section with a gain of about 10 round in single precision.
        for (std::size_t t = 0; t < input.size(); ++t)
            ASSERT_NEAR(static_cast<double>(output[t]), expected[t], 2e-5)
                << "channel " << channel << " frame " << t;
    }
}

TEST(Process, AHighRateNeedsTwoBandsThatLineUp)
{
    for (const auto& [rate, base] :
         {std::pair{176400U, 88200U}, {192000U, 96000U}, {352800U, 88200U}, {384000U, 96000U}})
    {
        SCOPED_TRACE(rate);
        const std::size_t ratio = rate / base;
        CProcessor neutral(1), late(1);
        neutral.start(sameChannels(1, {SSet{base}, SSet{rate}}), rate);
        late.start(sameChannels(1, {SSet{base, false, {0, 0, 0, -0.5F}}, SSet{rate}}), rate);
        const std::vector<float> expected = run(neutral, impulse(1024), 256);
        // The centres of the two bands lie one frame apart.
        const auto peak = std::max_element(expected.begin(), expected.end()) - expected.begin();
        EXPECT_NEAR(static_cast<double>(peak), ratio == 2 ? 41.5 : 81.5, 0.5);
        // Three samples and the polarity of the base rate's filter, in both bands.
        std::vector<float> shifted(1024, 0.0F);
        for (std::size_t i = 3 * ratio; i < 1024; ++i)
            shifted[i] = -0.5F * expected[i - 3 * ratio];
        EXPECT_THAT(run(late, impulse(1024), 256), testing::Pointwise(testing::FloatNear(1e-6F), shifted));

        krv_setChannelGain(late, 0, 0.25F);
        krv_setChannelDelay(late, 0, 1.0F);
        late.unload();
        late.settle(1, 256);
        EXPECT_THAT(run(late, impulse(1024), 256), testing::Pointwise(testing::FloatNear(1e-6F), expected))
            << "both bands are neutral without a filter";
    }
}

TEST(Process, NoDelayOrGainLeavesTheBuffersAndATenthOfASecondIsTheMost)
{
    for (const unsigned rate : {44100U, 96000U, 384000U})
    {
        CProcessor processor(1, 4096);
        processor.start(sameChannels(1, {SSet{44100}, SSet{96000}, SSet{384000}}), rate);
        std::vector<float> block(4096, 0.1F);
        for (const float value : {1e30F, -1e30F, std::nanf(""), INFINITY, -INFINITY, 0.0F, 400.0F})
        {
            krv_setChannelDelay(processor, 0, value);
            for (int i = 0; i < 12; ++i)
                processor.process(block, 1);
            krv_setChannelGain(processor, 0, value);
            processor.process(block, 1);
            krv_setChannelGain(processor, 0, 1.0F);
        }
        processor.settle(1, 4096);
        EXPECT_TRUE(rate == 384000 || run(processor, impulse(16384), 4096)[rate / 10] == 1.0F) << rate;
    }
}
