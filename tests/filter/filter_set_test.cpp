// SPDX-License-Identifier: GPL-3.0-or-later
#include "filter/filter_set.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>

#include "tests/support/document_builder.h"
#include "tests/support/temp_folder.h"

using korvo::filter::CFIIRFilter;
using korvotest::SChannel;
using korvotest::SSet;

namespace {

constexpr unsigned kRates[] = {44100, 48000, 88200, 96000, 176400, 192000, 352800, 384000};

/// A filter set, its engine, and blocks for it.
class FilterSet : public testing::Test
{
protected:
    FilterSet()
    {
        engine.initFilters(kRates, 8);
        engine.init(48000, 64, 2, 4800);
    }

    ~FilterSet() override { engine.removeAllFiltersHard(); } // no audio thread is left to wait for

    unsigned load(const std::vector<SChannel>& channels, bool minPhase = false)
    {
        const auto file = folder.write("f.korvo", korvotest::documentText(channels));
        return set.loadAndReadFilter(juce::String(file.string()), minPhase);
    }

    unsigned loadOne(std::vector<SSet> sets, bool minPhase = false)
    {
        return load({{1, 0, 0, 0, std::move(sets)}}, minPhase);
    }

    void processBlock()
    {
        float block[128] = {};
        void* retired[8] = {};
        for (unsigned channel = 0; channel < 2; ++channel)
            engine.process(false, block, block, 64, channel, 2, retired);
    }

    korvotest::CTempFolder folder;
    korvodsp::CFilteringEngine engine{2};
    CFIIRFilter set{engine};
};

SSet taps(unsigned fs, std::vector<float> values, bool minPhase = false)
{
    return {fs, minPhase, std::move(values), {{0, 0, 0, 0}}};
}

std::vector<float> impulse(std::size_t position, float value)
{
    std::vector<float> values(position + 8, 0.0F);
    values[position] = value;
    return values;
}

} // namespace

TEST_F(FilterSet, RunsTheFirstSetOfARateAndLinesTheHighBandUpWithTheLast)
{
    ASSERT_EQ(loadOne({taps(96000, impulse(20, 0.5F)), taps(96000, impulse(30, -0.25F))}), 0U);
    EXPECT_NEAR(set.getHighBand(96000, 0).gain, -0.25F, 1e-4F);
    EXPECT_EQ(set.getHighBand(96000, 0).delay, 30U);
    EXPECT_FLOAT_EQ(set.getlatency(), 20.0F / 96000.0F * 1000.0F);

    engine.init(96000, 64, 1, 9600);
    float block[64] = {};
    void* retired[8] = {};
    for (int i = 0; i < 4; ++i)
    {
        block[0] = i == 3 ? 1.0F : 0.0F; // once the filter has faded in
        engine.process(false, block, block, 64, 0, 1, retired);
    }
    EXPECT_EQ(block[20], 0.5F);
    EXPECT_EQ(block[30], 0.0F);
}

TEST_F(FilterSet, TakesTheLargestTapOfAFilterTooShortToEstimate)
{
    const std::tuple<std::vector<float>, float, unsigned> rows[] = {
        {{1.0F}, 1.0F, 0}, {{0.25F, -0.5F, 0.5F}, -0.5F, 1}, {{0.1F, 0, 0, 0.2F}, 0.2F, 3}, {{0, 0}, 0, 0}};
    for (const auto& [values, gain, delay] : rows)
    {
        ASSERT_EQ(loadOne({taps(88200, values)}), 0U);
        EXPECT_EQ(set.getHighBand(88200, 0).gain, gain);
        EXPECT_EQ(set.getHighBand(88200, 0).delay, delay);
    }
}

TEST_F(FilterSet, LatencyComesFromTheFirstSetThatIsNotSilent)
{
    const SSet silent = taps(44100, {0, 0, 0});
    const SSet minPhase = taps(48000, {0.0F, -0.5F, 0.5F}, true);
    ASSERT_EQ(loadOne({silent, taps(48000, impulse(480, 1.0F)), taps(96000, impulse(7, 1.0F)), minPhase}),
              0U);
    EXPECT_FLOAT_EQ(set.getlatency(), 10.0F);
    ASSERT_EQ(loadOne({silent, minPhase}, true), 0U);
    EXPECT_FLOAT_EQ(set.getlatency(), 1000.0F / 48000.0F) << "of two equal peaks the first counts";
    EXPECT_TRUE(set.isUsingMinPhase());
}

TEST_F(FilterSet, OffersARateThatAnyChannelHasInTheActiveModeAndDefaultsOfModeOne)
{
    const std::vector<SChannel> channels = {
        {1, 6.0F, 4.0F, -3.0F, {taps(48000, {1}), taps(192000, {1}), taps(32000, {1})}},
        {2, 6.0F, 4.0F, -2.0F, {taps(44100, {1}, true)}}};
    ASSERT_EQ(load(channels), 0U);
    for (const auto& [rate, offered] :
         {std::pair{48000U, true}, {32000U, true}, {192000U, true}, {44100U, false}})
        EXPECT_EQ(set.supportsSampleRate(rate), offered) << rate;
    EXPECT_EQ(set.getMaxGain(), 0.0F) << "a filter that only cuts has no gain to report";
    set.loadFilter(true);
    for (const auto& [rate, offered] : {std::pair{48000U, false}, {192000U, true}, {44100U, true}})
        EXPECT_EQ(set.supportsSampleRate(rate), offered) << rate;

    engine.setChannelGain(1, 0.125F);
    set.setDefaultGainAndDelay();
    EXPECT_NEAR(engine.getChannelGain(0), std::pow(10.0, 0.3), 1e-6);
    EXPECT_EQ(engine.getChannelDelay(0), 4.0F);
    EXPECT_EQ(engine.getChannelGain(1), 0.125F) << "it has no set of mode 1";
}

TEST_F(FilterSet, ClearingWaitsForTheAudioThreadAndNoLongerThanASecond)
{
    const auto timed = [this] {
        const auto start = std::chrono::steady_clock::now();
        set.clear();
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    ASSERT_EQ(loadOne({taps(48000, {1})}), 0U);
    EXPECT_LT(timed(), 0.5) << "no filter has started";
    ASSERT_EQ(loadOne({taps(48000, {1})}), 0U);
    processBlock();
    EXPECT_TRUE(engine.hasFilters());
    const double stuck = timed();
    EXPECT_GT(stuck, 1.0);
    EXPECT_LT(stuck, 3.0);
    EXPECT_FALSE(engine.hasFilters());
    EXPECT_LT(timed(), 0.5);
}
