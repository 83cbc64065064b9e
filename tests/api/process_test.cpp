// SPDX-License-Identifier: GPL-3.0-or-later
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <vector>

#include "tests/support/processor.h"
#include "tests/support/random.h"

using korvotest::CProcessor;
using korvotest::SChannel;
using korvotest::SSet;

namespace {

const std::vector<std::vector<float>> kNoSection = {{0.0F, 0.0F, 0.0F, 0.0F}};

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
        for (std::size_t t = 0; t < input.size(); ++t)
        {
            const double x = t >= n ? static_cast<double>(input[t - n]) : 0.0;
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
std::vector<float> run(krv_handle handle, const std::vector<float>& input, std::size_t frames,
                       unsigned channels, unsigned channel)
{
    std::vector<float> output;
    for (std::size_t start = 0; start < input.size(); start += frames)
    {
        const std::size_t count = std::min(frames, input.size() - start);
        std::vector<float> block(count * channels);
        for (std::size_t i = 0; i < count; ++i)
            block[i * channels + channel] = input[start + i];
        EXPECT_EQ(
            krv_process(handle, block.data(), block.data(), static_cast<std::uint32_t>(count), channels),
            KRV_STATUS_OK);
        for (std::size_t i = 0; i < count; ++i)
            output.push_back(block[i * channels + channel]);
    }
    return output;
}

std::vector<float> tone(double frequency, double rate, std::size_t frames)
{
    std::vector<float> samples(frames);
    for (std::size_t i = 0; i < frames; ++i)
        samples[i] = static_cast<float>(
            0.5 * std::sin(2.0 * std::numbers::pi * frequency * static_cast<double>(i) / rate));
    return samples;
}

} // namespace

TEST(Process, CorrectsEachChannelWithItsOwnFilter)
{
    std::mt19937 random = korvotest::makeRandom(7);
    SSet left{48000,
              false,
              korvotest::makeNoise(random, 100, 0.2F),
              {{-1.6F, 0.7F, 0.05F, 0.02F}, {0.3F, 0.1F, 0.2F, 0.0F}}};
    SSet right{48000, false, korvotest::makeNoise(random, 37, 0.2F), kNoSection};
    std::vector<SChannel> channels(2);
    channels[0].sets = {left};
    channels[1].number = 2;
    channels[1].sets = {right};

    for (unsigned channel = 0; channel < 2; ++channel)
    {
        CProcessor processor(2, 300);
        ASSERT_EQ(processor.load(channels), KRV_STATUS_OK);
        ASSERT_EQ(krv_setSamplerate(processor, 48000), KRV_STATUS_OK);
        processor.settle(2);
        const std::vector<float> input = korvotest::makeNoise(random, 3000);
        const std::vector<float> output = run(processor, input, 300, 2, channel);
        const std::vector<double> expected = correct(channel == 0 ? left : right, input);
        // 100 products of magnitude 0.2 and a section with a gain of about 10 round in single precision.
        for (std::size_t t = 0; t < input.size(); ++t)
            ASSERT_NEAR(static_cast<double>(output[t]), expected[t], 2e-5)
                << "channel " << channel << " frame " << t;
    }
}

TEST(Process, BlockLengthsDoNotShowInTheOutput)
{
    std::mt19937 random = korvotest::makeRandom(8);
    const SSet set{48000, false, korvotest::makeNoise(random, 61, 0.3F), {{-1.2F, 0.5F, 0.1F, 0.1F}}};
    const std::vector<float> input = korvotest::makeNoise(random, 4096);
    std::vector<std::vector<float>> outputs;
    for (const std::size_t frames : {4096U, 1U, 17U, 256U})
    {
        CProcessor processor(1, 4096);
        ASSERT_EQ(processor.load(korvotest::sameChannels(1, {set})), KRV_STATUS_OK);
        krv_setChannelDelay(processor, 0, 1.25F);
        krv_setOverallGain(processor, 0.5F);
        ASSERT_EQ(krv_setSamplerate(processor, 48000), KRV_STATUS_OK);
        processor.settle(1);
        outputs.push_back(run(processor, input, frames, 1, 0));
    }
    for (const std::vector<float>& output : outputs)
        EXPECT_EQ(output, outputs[0]);
}

TEST(Process, AHighRateNeedsTwoBandsThatLineUp)
{
    // Where a filter passes its input unchanged, low and high band add up to the input, one sample apart.
    for (const auto& [rate, base, latency] : {std::tuple{176400U, 88200U, 41U},
                                              {192000U, 96000U, 41U},
                                              {352800U, 88200U, 81U},
                                              {384000U, 96000U, 81U}})
    {
        SCOPED_TRACE(rate);
        CProcessor processor(1, 256);
        SSet baseSet{base, false, std::vector<float>(10, 0.0F), kNoSection};
        baseSet.taps[3] = -0.5F;
        ASSERT_EQ(processor.load(korvotest::sameChannels(1, {baseSet, SSet{rate}})), KRV_STATUS_OK);
        ASSERT_EQ(krv_setSamplerate(processor, rate), KRV_STATUS_OK);
        processor.settle(1, 256);
        std::vector<float> impulse(2048, 0.0F);
        const std::size_t start = 512;
        impulse[start] = 1.0F;
        const std::vector<float> output = run(processor, impulse, 256, 1, 0);
        const auto largest = std::max_element(output.begin(), output.end(),
                                              [](float a, float b) { return std::abs(a) < std::abs(b); });
        const std::size_t delayInFilter = 3 * (rate / base);
        const auto position = static_cast<std::size_t>(largest - output.begin());
        EXPECT_NEAR(static_cast<double>(position), static_cast<double>(start + latency + delayInFilter), 1.0);
        EXPECT_LT(*largest, 0.0F) << "the high band follows the filter's polarity";
    }
}

TEST(Process, BothBandsPassUnchangedWhileNoFilterIsActive)
{
    CProcessor processor(1, 256);
    ASSERT_EQ(processor.load(korvotest::sameChannels(1, {SSet{96000}, SSet{192000}})), KRV_STATUS_OK);
    ASSERT_EQ(krv_setSamplerate(processor, 192000), KRV_STATUS_OK);
    krv_setChannelGain(processor, 0, 0.25F);
    krv_setChannelDelay(processor, 0, 1.0F);
    processor.unload();
    processor.settle(1, 256);
    std::vector<float> impulse(512, 0.0F);
    impulse[0] = 1.0F;
    const std::vector<float> output = run(processor, impulse, 256, 1, 0);
    EXPECT_EQ(std::max_element(output.begin(), output.end()) - output.begin(), 42);
    EXPECT_GT(output[42], 0.73F) << "the high band's share alone";
}

TEST(Process, AToneKeepsItsLevelAcrossTheCrossover)
{
    for (const double frequency : {1000.0, 10000.0, 16000.0, 40000.0, 60000.0})
    {
        CProcessor processor(1, 512);
        ASSERT_EQ(processor.load(korvotest::sameChannels(1, {SSet{96000}, SSet{192000}})), KRV_STATUS_OK);
        ASSERT_EQ(krv_setSamplerate(processor, 192000), KRV_STATUS_OK);
        const std::vector<float> output = run(processor, tone(frequency, 192000.0, 19200), 512, 1, 0);
        double re = 0.0, im = 0.0;
        for (std::size_t i = 9600; i < 19200; ++i) // whole periods of all the tones
        {
            const double angle = 2.0 * std::numbers::pi * frequency * static_cast<double>(i) / 192000.0;
            re += static_cast<double>(output[i]) * std::cos(angle);
            im += static_cast<double>(output[i]) * std::sin(angle);
        }
        const double level = 20.0 * std::log10(std::hypot(re, im) / 4800.0 / 0.5);
        EXPECT_NEAR(level, 0.0, 0.05) << frequency << " Hz";
    }
}

TEST(Process, DelaysAndGainsThatMakeNoSenseStayInsideTheBuffers)
{
    for (const unsigned rate : {96000U, 384000U})
    {
        CProcessor processor(1, 4096);
        ASSERT_EQ(processor.load(korvotest::sameChannels(1, {SSet{96000}, SSet{384000}})), KRV_STATUS_OK);
        ASSERT_EQ(krv_setSamplerate(processor, rate), KRV_STATUS_OK);
        std::vector<float> block(4096, 0.1F);
        for (const float value : {1e30F, -1e30F, std::nanf(""), INFINITY, -INFINITY, 400.0F, 0.0F})
        {
            krv_setChannelDelay(processor, 0, value);
            for (int i = 0; i < 12; ++i)
                processor.process(block, 1);
            krv_setChannelGain(processor, 0, value);
            processor.process(block, 1);
            krv_setChannelGain(processor, 0, 1.0F);
        }
    }
}

TEST(Process, AChannelIsDelayedByATenthOfASecondAtMost)
{
    for (const unsigned rate : {44100U, 96000U})
    {
        CProcessor processor(1, 4096);
        ASSERT_EQ(processor.load(korvotest::sameChannels(1, {SSet{rate}})), KRV_STATUS_OK);
        ASSERT_EQ(krv_setSamplerate(processor, rate), KRV_STATUS_OK);
        krv_setChannelDelay(processor, 0, 250.0F);
        processor.settle(1, 4096);
        std::vector<float> impulse(16384, 0.0F);
        impulse[0] = 1.0F;
        const std::vector<float> output = run(processor, impulse, 4096, 1, 0);
        EXPECT_EQ(output[rate / 10], 1.0F) << rate;
    }
}
