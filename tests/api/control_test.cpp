// SPDX-License-Identifier: GPL-3.0-or-later
#include <gmock/gmock.h>

#include <sstream>
#include <string>
#include <vector>

#include "tests/support/processor.h"

using korvotest::CProcessor;
using korvotest::SChannel;
using korvotest::SSet;
using testing::Each;
using testing::EndsWith;

namespace {

std::vector<SChannel> stereo()
{
    SSet standard48{48000, false, std::vector<float>(481, 0.0F), {{-0.5F, 0.1F, 0.01F, 0.0F}}};
    standard48.taps[480] = 1.0F;
    const SSet standard96{96000, false, {1.0F, 0.5F}};
    const SSet minPhase{48000, true, {0.0F, 0.25F, 0.0F}};
    std::vector<SChannel> channels =
        korvotest::sameChannels(2, {standard48, standard96, SSet{192000}, minPhase});
    channels[0].gaindB = -6.0F;
    channels[0].delayms = 2.5F;
    channels[0].maxFilterGaindB = -3.0F;
    channels[1].maxFilterGaindB = 4.5F;
    return channels;
}

/// What the getters tell of an instance of two channels.
std::string stateOf(krv_handle handle)
{
    std::int32_t on[2] = {9, 9};
    float overall = 9, gains[2] = {9, 9}, delays[2] = {9, 9}, latency = 9, maxGain = 9;
    std::uint32_t mode = 9, rates[8] = {};
    EXPECT_THAT((std::vector<int>{
                    krv_isEnabled(handle, &on[0]), krv_isDelayAndGainEnabled(handle, &on[1]),
                    krv_getOverallGain(handle, &overall), krv_getChannelGain(handle, 0, &gains[0]),
                    krv_getChannelGain(handle, 1, &gains[1]), krv_getChannelDelay(handle, 0, &delays[0]),
                    krv_getChannelDelay(handle, 1, &delays[1]), krv_getFilterLatency(handle, &latency),
                    krv_getFilterMaxGain(handle, &maxGain), krv_getFilterOperatingMode(handle, &mode),
                    krv_getFilterSamplerates(handle, rates, 8)}),
                Each(KRV_STATUS_OK));
    std::ostringstream text;
    text << "on " << on[0] << ' ' << on[1] << ", gains " << overall << ' ' << gains[0] << ' ' << gains[1]
         << ", delays " << delays[0] << ' ' << delays[1] << ", latency " << latency << ", at most " << maxGain
         << " dB, mode " << mode;
    for (const std::uint32_t rate : rates)
        if (rate != 0)
            text << ' ' << rate;
    return text.str();
}

} // namespace

TEST(Control, BadArgumentsAreRefused)
{
    CProcessor processor(1);
    float value = 42.0F;
    char text[4];
    std::vector<int> results = {
        krv_getChannelGain(processor, 0, nullptr),  krv_isEnabled(processor, nullptr),
        krv_getOverallGain(processor, nullptr),     krv_getFilterLatency(processor, nullptr),
        krv_loadFilterFromFile(processor, nullptr), krv_loadFilter(processor, 0),
        krv_setFilterOperatingMode(processor, 0),   krv_setFilterOperatingMode(processor, 3),
        krv_getFilterName(nullptr, text, 0), // the length comes before the handle
        krv_getFilterName(processor, nullptr, 4),   krv_getFilterSamplerates(processor, nullptr, 1),
        krv_getOutputRouting(processor, nullptr, 1)};
    for (const unsigned channel : {1U, 2U, 0xFFFFFFFFU})
        results.insert(results.end(), {krv_setChannelGain(processor, channel, 1.0F),
                                       krv_getChannelGain(processor, channel, &value),
                                       krv_setChannelDelay(processor, channel, 1.0F),
                                       krv_getChannelDelay(processor, channel, &value)});
    EXPECT_THAT(results, Each(KRV_STATUS_BAD_ARGUMENT));
    EXPECT_EQ(value, 42.0F);
}

TEST(FilterLoad, PutsTheDocumentsValuesInPlace)
{
    CProcessor processor(2);
    EXPECT_EQ(stateOf(processor), "on 1 1, gains 1 1 1, delays 0 0, latency -1, at most 0 dB, mode 0");
    for (const unsigned rate : {0U, 44100U, 48000U, 192000U, 500000U})
        EXPECT_EQ(krv_setSamplerate(processor, rate), KRV_STATUS_RATE_NOT_SUPPORTED) << rate;

    krv_enable(processor, 0);
    krv_enableDelayAndGain(processor, 0);
    krv_setOverallGain(processor, 0.5F);
    krv_setChannelGain(processor, 0, -20.0F);
    krv_setChannelDelay(processor, 1, 3.5F);
    EXPECT_EQ(stateOf(processor), "on 0 0, gains 0.5 -20 1, delays 0 3.5, latency -1, at most 0 dB, mode 0");

    ASSERT_EQ(processor.load(stereo()), KRV_STATUS_OK);
    const std::string loaded = "on 1 1, gains 0.5 0.501187 1, delays 2.5 0, latency 10, at most 4.5 dB, "
                               "mode 1 48000 96000 192000";
    EXPECT_EQ(stateOf(processor), loaded) << "a load leaves the overall gain alone";

    krv_setChannelGain(processor, 0, 3.0F);
    krv_enableDelayAndGain(processor, 0);
    EXPECT_EQ(krv_setDefaultDelayAndGain(processor), KRV_STATUS_OK);
    EXPECT_EQ(stateOf(processor), loaded);
}

TEST(FilterLoad, ChangesTheModeAndLeavesTheControlsAlone)
{
    CProcessor processor(2);
    ASSERT_EQ(processor.load(stereo()), KRV_STATUS_OK);
    krv_setChannelGain(processor, 0, 0.25F);
    krv_enable(processor, 0);
    EXPECT_EQ(krv_setFilterOperatingMode(processor, 2), KRV_STATUS_OK);
    EXPECT_EQ(stateOf(processor), "on 0 1, gains 1 0.25 1, delays 2.5 0, latency 0.0208333, at most 4.5 dB, "
                                  "mode 2 48000 192000");
    // Defaults come from mode 1 in every mode.
    EXPECT_EQ(krv_setDefaultDelayAndGain(processor), KRV_STATUS_OK);
    EXPECT_THAT(stateOf(processor), testing::HasSubstr("gains 1 0.501187 1"));

    processor.folder().write("filter.korvo", "<brisa/>");
    EXPECT_EQ(krv_setFilterOperatingMode(processor, 1), KRV_STATUS_OK) << "a failed reload shows in the mode";
    EXPECT_THAT(stateOf(processor), EndsWith("mode 0"));
}

TEST(FilterLoad, KeepsTheOldFilterOnlyWhenTheFileIsMissing)
{
    CProcessor processor(2);
    const std::string folder = processor.folder().path();
    for (const std::string& broken : {std::string(), std::string("no document"), std::string(300, '\0'),
                                      korvotest::documentText(stereo()).substr(0, 700)})
    {
        ASSERT_EQ(processor.load(stereo()), KRV_STATUS_OK);
        const std::string loaded = stateOf(processor);
        for (const std::string& missing : {folder + "/none.korvo", folder, std::string()})
            EXPECT_EQ(krv_loadFilterFromFile(processor, missing.c_str()), KRV_STATUS_BAD_ARGUMENT) << missing;
        EXPECT_EQ(stateOf(processor), loaded);

        const auto file = processor.folder().write("broken.korvo", broken);
        EXPECT_EQ(krv_loadFilterFromFile(processor, file.c_str()), KRV_STATUS_FILE_ERROR);
        EXPECT_THAT(stateOf(processor), EndsWith("mode 0"));
        char path[512] = "";
        EXPECT_EQ(krv_getFilterPath(processor, path, sizeof path), KRV_STATUS_OK);
        EXPECT_EQ(path, folder + "/filter.korvo");
    }
}

TEST(FilterLoad, TextAndListsGiveWhatFits)
{
    CProcessor processor(2);
    const auto file =
        processor.folder().write("f.korvo", korvotest::documentText(stereo(), "H\xC3\xB6rraum"));
    ASSERT_EQ(krv_loadFilterFromFile(processor, file.c_str()), KRV_STATUS_OK);

    char text[16];
    std::fill(std::begin(text), std::end(text), 'x');
    EXPECT_EQ(krv_getFilterName(processor, text, 16), KRV_STATUS_OK);
    EXPECT_EQ(std::string(text, 16), std::string("H\xC3\xB6rraum") + std::string(8, '\0'));
    EXPECT_EQ(krv_getFilterName(processor, text, 8), KRV_STATUS_BAD_ARGUMENT) << "no room for the end";
    EXPECT_STREQ(text, "H\xC3\xB6rrau");
    EXPECT_EQ(krv_getFilterName(processor, text, 9), KRV_STATUS_OK);

    std::uint32_t list[3] = {};
    EXPECT_EQ(krv_getFilterSamplerates(processor, list, 1), KRV_STATUS_BAD_ARGUMENT);
    EXPECT_THAT(list, testing::ElementsAre(48000, 0, 0));
    EXPECT_EQ(krv_getFilterSamplerates(processor, nullptr, 0), KRV_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(krv_getOutputRouting(processor, list, 3), KRV_STATUS_OK);
    EXPECT_THAT(list, testing::ElementsAre(1, 2, 0));
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
    processor.start(channels, 96000);
    std::uint32_t routing[9];
    EXPECT_EQ(krv_getOutputRouting(processor, routing, 9), KRV_STATUS_OK);
    EXPECT_EQ(routing[7], 8U);
    EXPECT_EQ(routing[8], 0U);
}

TEST(SampleRate, FollowsWhatTheDocumentOffers)
{
    CProcessor processor(1);
    ASSERT_EQ(processor.load(korvotest::sameChannels(
                  1, {SSet{32000}, SSet{48000}, SSet{88200}, SSet{128000}, SSet{176400}, SSet{192000}})),
              KRV_STATUS_OK);
    constexpr std::pair<unsigned, int> kCases[] = {{48000, 0},  {32000, 0},  {44100, 7},  {96000, 7},
                                                   {128000, 7}, {176400, 0}, {352800, 7}, {192000, 7},
                                                   {384000, 7}, {0, 7}};
    for (const auto& [rate, status] : kCases)
        EXPECT_EQ(krv_setSamplerate(processor, rate), status) << rate;
}

TEST(Enumeration, ListsTheFolderOnceAndLoadsByIndex)
{
    CProcessor processor(2);
    setenv("XDG_CONFIG_HOME", "", 1);
    setenv("HOME", processor.folder().path().c_str(), 1);
    char name[32] = "";
    const auto ask = [&](unsigned index, char* buffer, unsigned length) {
        return krv_filters_enumerate(processor, index, buffer, length);
    };
    EXPECT_EQ(ask(0, name, sizeof name), KRV_STATUS_NO_MORE_FILTERS);

    const std::string folder = ".config/Application Support/Korvo/Filters/";
    processor.folder().write(folder + "a.korvo", korvotest::documentText(stereo(), "A room"));
    processor.folder().write(folder + "b.txt", korvotest::documentText(stereo(), "Another"));
    ASSERT_EQ(ask(0, name, sizeof name), KRV_STATUS_OK);
    EXPECT_STREQ(name, "A room");
    EXPECT_EQ(ask(0, nullptr, 0), KRV_STATUS_OK);
    EXPECT_EQ(ask(0, nullptr, 5), KRV_STATUS_BAD_ARGUMENT);
    name[3] = '#';
    EXPECT_EQ(ask(0, name, 3), KRV_STATUS_OK);
    EXPECT_EQ(std::string(name, 4), "A r#") << "a cut name has no end";

    processor.folder().write(folder + "c.korvo", korvotest::documentText(stereo(), "Late"));
    EXPECT_EQ(ask(1, name, sizeof name), KRV_STATUS_NO_MORE_FILTERS);
    EXPECT_EQ(krv_loadFilter(processor, 1), KRV_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(krv_loadFilter(processor, 0), KRV_STATUS_OK);
    EXPECT_THAT(stateOf(processor), testing::HasSubstr("mode 1"));
}
