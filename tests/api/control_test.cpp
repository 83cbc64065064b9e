// SPDX-License-Identifier: GPL-3.0-or-later
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "tests/support/processor.h"

using korvotest::CProcessor;
using korvotest::SChannel;
using korvotest::SSet;

namespace {

std::vector<SChannel> stereo()
{
    SSet standard48{48000, false, std::vector<float>(481, 0.0F), {{-0.5F, 0.1F, 0.01F, 0.0F}}};
    standard48.taps[480] = 1.0F;
    const SSet standard96{96000, false, {1.0F, 0.5F}, {{0, 0, 0, 0}}};
    const SSet high{192000, false, {1.0F}, {{0, 0, 0, 0}}};
    const SSet minPhase{48000, true, {0.0F, 0.25F, 0.0F}, {{0, 0, 0, 0}}};
    std::vector<SChannel> channels = korvotest::sameChannels(2, {standard48, standard96, high, minPhase});
    channels[0].gaindB = -6.0F;
    channels[0].delayms = 2.5F;
    channels[0].maxFilterGaindB = -3.0F;
    channels[1].maxFilterGaindB = 4.5F;
    return channels;
}

float channelGain(krv_handle handle, unsigned channel)
{
    float gain = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(krv_getChannelGain(handle, channel, &gain), KRV_STATUS_OK);
    return gain;
}

float channelDelay(krv_handle handle, unsigned channel)
{
    float delay = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(krv_getChannelDelay(handle, channel, &delay), KRV_STATUS_OK);
    return delay;
}

unsigned operatingMode(krv_handle handle)
{
    std::uint32_t mode = 99;
    EXPECT_EQ(krv_getFilterOperatingMode(handle, &mode), KRV_STATUS_OK);
    return mode;
}

std::vector<std::uint32_t> rates(krv_handle handle)
{
    std::vector<std::uint32_t> list(8, 1);
    EXPECT_EQ(krv_getFilterSamplerates(handle, list.data(), 8), KRV_STATUS_OK);
    while (!list.empty() && list.back() == 0)
        list.pop_back();
    return list;
}

} // namespace

TEST(Control, ANewInstanceIsEnabledAndNeutral)
{
    CProcessor processor(2);
    std::int32_t flag = -1;
    EXPECT_EQ(krv_isEnabled(processor, &flag), KRV_STATUS_OK);
    EXPECT_EQ(flag, 1);
    flag = -1;
    EXPECT_EQ(krv_isDelayAndGainEnabled(processor, &flag), KRV_STATUS_OK);
    EXPECT_EQ(flag, 1);
    float overall = 0.0F;
    EXPECT_EQ(krv_getOverallGain(processor, &overall), KRV_STATUS_OK);
    EXPECT_EQ(overall, 1.0F);
    EXPECT_EQ(channelGain(processor, 1), 1.0F);
    EXPECT_EQ(channelDelay(processor, 1), 0.0F);
    EXPECT_EQ(operatingMode(processor), 0U);
    EXPECT_TRUE(rates(processor).empty());
    float latency = 0.0F;
    EXPECT_EQ(krv_getFilterLatency(processor, &latency), KRV_STATUS_OK);
    EXPECT_LT(latency, 0.0F);
    char text[8] = "xxxxxxx";
    EXPECT_EQ(krv_getFilterName(processor, text, sizeof text), KRV_STATUS_OK);
    EXPECT_STREQ(text, "");
    for (const unsigned rate : {0U, 44100U, 48000U, 192000U, 500000U})
        EXPECT_EQ(krv_setSamplerate(processor, rate), KRV_STATUS_RATE_NOT_SUPPORTED) << rate;
}

TEST(Control, SettersClampAsDocumented)
{
    constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
    CProcessor processor(1);
    for (const auto& [set, kept] : {std::pair{0.5F, 0.5F}, {2.0F, 1.0F}, {-1.0F, -1.0F}, {kNan, 1.0F}})
    {
        float result = 0.0F;
        EXPECT_EQ(krv_setOverallGain(processor, set), KRV_STATUS_OK);
        EXPECT_EQ(krv_getOverallGain(processor, &result), KRV_STATUS_OK);
        EXPECT_EQ(result, kept);
    }
    for (const auto& [set, kept] : {std::pair{-1.0F, 0.0F}, {kNan, 0.0F}, {1e30F, 1e30F}, {3.5F, 3.5F}})
    {
        EXPECT_EQ(krv_setChannelDelay(processor, 0, set), KRV_STATUS_OK);
        EXPECT_EQ(channelDelay(processor, 0), kept);
    }
    EXPECT_EQ(krv_setChannelGain(processor, 0, -20.0F), KRV_STATUS_OK);
    EXPECT_EQ(channelGain(processor, 0), -20.0F);
}

TEST(Control, BadArgumentsAreRefused)
{
    CProcessor processor(1);
    float value = 42.0F;
    for (const unsigned channel : {1U, 2U, 0xFFFFFFFFU})
    {
        EXPECT_EQ(krv_setChannelGain(processor, channel, 1.0F), KRV_STATUS_BAD_ARGUMENT);
        EXPECT_EQ(krv_getChannelGain(processor, channel, &value), KRV_STATUS_BAD_ARGUMENT);
        EXPECT_EQ(krv_setChannelDelay(processor, channel, 1.0F), KRV_STATUS_BAD_ARGUMENT);
        EXPECT_EQ(krv_getChannelDelay(processor, channel, &value), KRV_STATUS_BAD_ARGUMENT);
    }
    EXPECT_EQ(value, 42.0F);
    EXPECT_EQ(krv_getChannelGain(processor, 0, nullptr), KRV_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(krv_isEnabled(processor, nullptr), KRV_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(krv_getOverallGain(processor, nullptr), KRV_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(krv_getFilterLatency(processor, nullptr), KRV_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(krv_loadFilterFromFile(processor, nullptr), KRV_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(krv_loadFilter(processor, 0), KRV_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(krv_setFilterOperatingMode(processor, 0), KRV_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(krv_setFilterOperatingMode(processor, 3), KRV_STATUS_BAD_ARGUMENT);
    char text[4];
    EXPECT_EQ(krv_getFilterName(nullptr, text, 0), KRV_STATUS_BAD_ARGUMENT)
        << "the length comes before the handle";
    EXPECT_EQ(krv_getFilterName(processor, nullptr, 4), KRV_STATUS_BAD_ARGUMENT);
}

TEST(FilterLoad, PutsTheDocumentsValuesInPlace)
{
    CProcessor processor(2);
    krv_setChannelGain(processor, 0, 9.0F);
    krv_enable(processor, 0);
    krv_enableDelayAndGain(processor, 0);
    krv_setOverallGain(processor, 0.5F);
    ASSERT_EQ(processor.load(stereo()), KRV_STATUS_OK);

    std::int32_t flag = 0;
    krv_isEnabled(processor, &flag);
    EXPECT_EQ(flag, 1);
    krv_isDelayAndGainEnabled(processor, &flag);
    EXPECT_EQ(flag, 1);
    float value = 0.0F;
    krv_getOverallGain(processor, &value);
    EXPECT_EQ(value, 0.5F) << "a load leaves the overall gain alone";
    EXPECT_NEAR(channelGain(processor, 0), std::pow(10.0, -6.0 / 20.0), 1e-6);
    EXPECT_EQ(channelGain(processor, 1), 1.0F);
    EXPECT_EQ(channelDelay(processor, 0), 2.5F);
    krv_getFilterLatency(processor, &value);
    EXPECT_FLOAT_EQ(value, 10.0F);
    krv_getFilterMaxGain(processor, &value);
    EXPECT_EQ(value, 4.5F);
    EXPECT_EQ(operatingMode(processor), 1U);
    EXPECT_EQ(rates(processor), (std::vector<std::uint32_t>{48000, 96000, 192000}));

    krv_setChannelGain(processor, 0, 3.0F);
    krv_enableDelayAndGain(processor, 0);
    EXPECT_EQ(krv_setDefaultDelayAndGain(processor), KRV_STATUS_OK);
    EXPECT_NEAR(channelGain(processor, 0), std::pow(10.0, -6.0 / 20.0), 1e-6);
    krv_isDelayAndGainEnabled(processor, &flag);
    EXPECT_EQ(flag, 1);
}

TEST(FilterLoad, ChangesTheModeAndLeavesTheControlsAlone)
{
    CProcessor processor(2);
    ASSERT_EQ(processor.load(stereo()), KRV_STATUS_OK);
    krv_setChannelGain(processor, 0, 0.25F);
    krv_enable(processor, 0);
    EXPECT_EQ(krv_setFilterOperatingMode(processor, 2), KRV_STATUS_OK);
    EXPECT_EQ(operatingMode(processor), 2U);
    EXPECT_EQ(rates(processor), (std::vector<std::uint32_t>{48000, 192000}));
    float latency = 0.0F;
    krv_getFilterLatency(processor, &latency);
    EXPECT_FLOAT_EQ(latency, 1000.0F / 48000.0F);
    EXPECT_EQ(channelGain(processor, 0), 0.25F);
    std::int32_t enabled = 1;
    krv_isEnabled(processor, &enabled);
    EXPECT_EQ(enabled, 0);
    EXPECT_EQ(krv_setDefaultDelayAndGain(processor), KRV_STATUS_OK);
    EXPECT_NE(channelGain(processor, 0), 0.25F) << "defaults come from mode 1 in every mode";
}

TEST(FilterLoad, KeepsTheOldFilterOnlyWhenTheFileIsMissing)
{
    CProcessor processor(2);
    ASSERT_EQ(processor.load(stereo()), KRV_STATUS_OK);
    char path[512] = "";
    krv_getFilterPath(processor, path, sizeof path);
    const std::string before = path;

    const std::string folder = processor.folder().path();
    for (const std::string& missing : {folder + "/none.korvo", folder, std::string()})
        EXPECT_EQ(krv_loadFilterFromFile(processor, missing.c_str()), KRV_STATUS_BAD_ARGUMENT) << missing;
    EXPECT_EQ(operatingMode(processor), 1U);

    for (const std::string& broken : {std::string(), std::string("no document"), std::string(300, '\0'),
                                      korvotest::documentText(stereo()).substr(0, 700)})
    {
        ASSERT_EQ(processor.load(stereo()), KRV_STATUS_OK);
        const auto file = processor.folder().write("broken.korvo", broken);
        EXPECT_EQ(krv_loadFilterFromFile(processor, file.c_str()), KRV_STATUS_FILE_ERROR);
        EXPECT_EQ(operatingMode(processor), 0U);
        EXPECT_TRUE(rates(processor).empty());
    }
    krv_getFilterPath(processor, path, sizeof path);
    EXPECT_EQ(path, before);
}

TEST(FilterLoad, AFailedReloadShowsInTheOperatingMode)
{
    CProcessor processor(2);
    ASSERT_EQ(processor.load(stereo()), KRV_STATUS_OK);
    processor.folder().write("filter.korvo", "<brisa/>");
    EXPECT_EQ(krv_setFilterOperatingMode(processor, 1), KRV_STATUS_OK);
    EXPECT_EQ(operatingMode(processor), 0U);
}

TEST(FilterLoad, TextAndListsGiveWhatFits)
{
    CProcessor processor(2);
    const auto file =
        processor.folder().write("f.korvo", korvotest::documentText(stereo(), "H\xC3\xB6rraum"));
    ASSERT_EQ(krv_loadFilterFromFile(processor, file.c_str()), KRV_STATUS_OK);

    char text[16];
    std::fill(std::begin(text), std::end(text), 'x');
    EXPECT_EQ(krv_getFilterName(processor, text, sizeof text), KRV_STATUS_OK);
    EXPECT_STREQ(text, "H\xC3\xB6rraum");
    EXPECT_EQ(text[15], '\0') << "the rest is zeroed";
    EXPECT_EQ(krv_getFilterName(processor, text, 8), KRV_STATUS_BAD_ARGUMENT) << "no room for the end";
    EXPECT_STREQ(text, "H\xC3\xB6rrau");
    EXPECT_EQ(krv_getFilterName(processor, text, 9), KRV_STATUS_OK);

    std::uint32_t list[8];
    EXPECT_EQ(krv_getFilterSamplerates(processor, list, 1), KRV_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(list[0], 48000U);
    EXPECT_EQ(krv_getFilterSamplerates(processor, nullptr, 0), KRV_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(krv_getOutputRouting(processor, list, 8), KRV_STATUS_OK);
    EXPECT_EQ(list[0], 1U);
    EXPECT_EQ(list[1], 2U);
    EXPECT_EQ(list[2], 0U);
    EXPECT_EQ(krv_getOutputRouting(processor, list, 2), KRV_STATUS_OK);
    EXPECT_EQ(krv_getOutputRouting(processor, list, 1), KRV_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(krv_getOutputRouting(processor, nullptr, 0), KRV_STATUS_BAD_ARGUMENT);
}

TEST(FilterLoad, WalksChannelsThatProcessorAndTablesLack)
{
    CProcessor processor(2);
    std::vector<SChannel> channels = korvotest::sameChannels(11, {SSet{96000, false, {1, 2, 3, 4, 5}}});
    channels[1].number = 0xFFFFFFFF;
    channels[2].number = 40;
    ASSERT_EQ(processor.load(channels), KRV_STATUS_OK);
    std::uint32_t routing[9];
    EXPECT_EQ(krv_getOutputRouting(processor, routing, 9), KRV_STATUS_OK);
    EXPECT_EQ(routing[7], 8U);
    EXPECT_EQ(routing[8], 0U);
    EXPECT_EQ(krv_setSamplerate(processor, 96000), KRV_STATUS_OK);
    processor.settle(2);
}

TEST(SampleRate, FollowsWhatTheDocumentOffers)
{
    CProcessor processor(1);
    ASSERT_EQ(processor.load(korvotest::sameChannels(
                  1, {SSet{32000}, SSet{48000}, SSet{88200}, SSet{128000}, SSet{176400}, SSet{192000}})),
              KRV_STATUS_OK);
    struct SCase
    {
        unsigned rate;
        int status;
    };
    constexpr SCase kCases[] = {{48000, 0},  {32000, 0},  {44100, 7},  {96000, 7},  {128000, 7},
                                {176400, 0}, {352800, 7}, {192000, 7}, {384000, 7}, {0, 7}};
    for (const SCase& c : kCases)
        EXPECT_EQ(krv_setSamplerate(processor, c.rate), c.status) << c.rate;
}

TEST(Enumeration, ListsTheFolderOnceAndLoadsByIndex)
{
    CProcessor processor(2);
    setenv("XDG_CONFIG_HOME", "", 1);
    setenv("HOME", processor.folder().path().c_str(), 1);
    char name[32] = "";
    EXPECT_EQ(krv_filters_enumerate(processor, 0, name, sizeof name), KRV_STATUS_NO_MORE_FILTERS);

    const std::string folder = ".config/Application Support/Korvo/Filters/";
    processor.folder().write(folder + "a.korvo", korvotest::documentText(stereo(), "A room"));
    processor.folder().write(folder + "b.txt", korvotest::documentText(stereo(), "Another"));
    ASSERT_EQ(krv_filters_enumerate(processor, 0, name, sizeof name), KRV_STATUS_OK);
    EXPECT_STREQ(name, "A room");
    EXPECT_EQ(krv_filters_enumerate(processor, 0, nullptr, 0), KRV_STATUS_OK);
    EXPECT_EQ(krv_filters_enumerate(processor, 0, nullptr, 5), KRV_STATUS_BAD_ARGUMENT);
    name[3] = '#';
    EXPECT_EQ(krv_filters_enumerate(processor, 0, name, 3), KRV_STATUS_OK);
    EXPECT_EQ(std::string(name, 4), "A r#") << "a cut name has no end";

    processor.folder().write(folder + "c.korvo", korvotest::documentText(stereo(), "Late"));
    EXPECT_EQ(krv_filters_enumerate(processor, 1, name, sizeof name), KRV_STATUS_NO_MORE_FILTERS);
    EXPECT_EQ(krv_loadFilter(processor, 0), KRV_STATUS_OK);
    EXPECT_EQ(krv_loadFilter(processor, 1), KRV_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(operatingMode(processor), 1U);
}
