// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/krv/render_fixture.h"

#include <algorithm>

using namespace korvotest;
using testing::HasSubstr;

namespace {

using Render = CRenderTest;

struct SFileKind
{
    const char* name;
    int format;
    int bits; // that pass through single precision unchanged
};

constexpr SFileKind kFileKinds[] = {
    {"a.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16, 16},   {"b.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_24, 24},
    {"c.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_32, 24},   {"d.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT, 24},
    {"e.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 16}, {"f.FLAC", SF_FORMAT_FLAC | SF_FORMAT_PCM_24, 24},
    {"g.aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_24, 24}, {"h.aif", SF_FORMAT_AIFF | SF_FORMAT_FLOAT, 24},
    {"i.w64", SF_FORMAT_W64 | SF_FORMAT_PCM_32, 24}};

TEST_F(Render, KeepsEverySampleAndTheFormatThroughAFilterThatChangesNothing)
{
    const std::string filter = writeFilter("identity.korvo", 2, {{}});
    for (const SFileKind& kind : kFileKinds)
    {
        SCOPED_TRACE(kind.name);
        const SAudio in = noise(kind.format, 48000, 2, 5003, kind.bits);
        writeAudio(at("in"), in);
        render({filter, at("in"), at(kind.name), "--block", "1000"});
        const SAudio out = readAudio(at(kind.name));
        EXPECT_EQ(out.format, in.format);
        EXPECT_EQ(out.rate, in.rate);
        EXPECT_EQ(out.samples, in.samples);
    }
}

TEST_F(Render, ConvertsToTheFormatThatIsAskedFor)
{
    const std::string filter = writeFilter("identity.korvo", 1, {{}});
    const SAudio in = noise(SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 1, 3000, 16);
    writeAudio(at("in.wav"), in);
    const std::pair<const char*, int> formats[] = {{"int16", SF_FORMAT_PCM_16},
                                                   {"int24", SF_FORMAT_PCM_24},
                                                   {"int32", SF_FORMAT_PCM_32},
                                                   {"float", SF_FORMAT_FLOAT}};
    for (const auto& [name, subtype] : formats)
    {
        render({filter, at("in.wav"), at("out.wav"), "--format", name});
        const SAudio out = readAudio(at("out.wav"));
        EXPECT_EQ(out.format & SF_FORMAT_SUBMASK, subtype);
        EXPECT_EQ(out.samples, in.samples) << name;
    }
}

TEST_F(Render, FindsTheNearestFormatForFilesOfOtherOnes)
{
    const std::string filter = writeFilter("identity.korvo", 2, {{}});
    const std::pair<int, int> subtypes[] = {{SF_FORMAT_WAV | SF_FORMAT_PCM_U8, SF_FORMAT_PCM_16},
                                            {SF_FORMAT_WAV | SF_FORMAT_DOUBLE, SF_FORMAT_FLOAT},
                                            {SF_FORMAT_AU | SF_FORMAT_ULAW, SF_FORMAT_PCM_16},
                                            {SF_FORMAT_OGG | SF_FORMAT_VORBIS, SF_FORMAT_FLOAT}};
    for (const auto& [inFormat, outSubtype] : subtypes)
    {
        writeAudio(at("in"), noise(inFormat, 48000, 2, 2000, 8));
        render({filter, at("in"), at("out.wav")});
        const SAudio in = readAudio(at("in"));
        const SAudio out = readAudio(at("out.wav"));
        EXPECT_EQ(out.format & SF_FORMAT_SUBMASK, outSubtype);
        EXPECT_EQ(out.frames(), in.frames());
        EXPECT_THAT(out.samples, testing::Pointwise(testing::DoubleNear(1e-6), in.samples));
    }
}

TEST_F(Render, TakesTheLatencyOffWhenItAligns)
{
    constexpr std::size_t kLatency = 100;
    const std::string filter = writeFilter("delay.korvo", 2, {{.taps = delayedTap(kLatency)}});
    const SAudio in = noise(SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 2, 5000, 16);
    writeAudio(at("in.wav"), in);

    render({filter, at("in.wav"), at("late.wav"), "--block", "64"});
    std::vector<double> late(2 * kLatency);
    late.insert(late.end(), in.samples.begin(), in.samples.end() - 2 * kLatency);
    EXPECT_EQ(readAudio(at("late.wav")).samples, late);

    EXPECT_THAT(render({filter, at("in.wav"), at("aligned.wav"), "--align", "--block", "64"}),
                HasSubstr("100 frames (2.08 ms), taken off"));
    EXPECT_EQ(readAudio(at("aligned.wav")).samples, in.samples);
}

TEST_F(Render, AlignsAFileThatIsShorterThanTheLatency)
{
    const std::string filter = writeFilter("delay.korvo", 1, {{.taps = delayedTap(2000)}});
    const SAudio in = noise(SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 1, 7, 16);
    writeAudio(at("in.wav"), in);
    render({filter, at("in.wav"), at("out.wav"), "--align", "--block", "16"});
    EXPECT_EQ(readAudio(at("out.wav")).samples, in.samples);
}

// The base rate's taps stand 30 samples late, and so 60 and 120 at the stream's rate.
TEST_F(Render, AlignsBothBandsOfAHighRate)
{
    const std::string filter =
        writeFilter("high.korvo", 1, {{.fs = 96000, .taps = delayedTap(30)}, {.fs = 192000}, {.fs = 384000}});
    const std::pair<int, const char*> rates[] = {{192000, "two-band, base rate 96000 Hz, ratio 2"},
                                                 {384000, "two-band, base rate 96000 Hz, ratio 4"}};
    for (const auto& [rate, path] : rates)
    {
        SCOPED_TRACE(rate);
        constexpr std::size_t kPulse = 3001;
        SAudio in{SF_FORMAT_WAV | SF_FORMAT_FLOAT, rate, 1, std::vector<double>(6003)};
        in.samples[kPulse] = 0.5;
        writeAudio(at("in.wav"), in);
        EXPECT_THAT(render({filter, at("in.wav"), at("out.wav"), "--align", "--block", "1023"}),
                    HasSubstr(path));
        const SAudio out = readAudio(at("out.wav"));
        ASSERT_EQ(out.samples.size(), in.samples.size());
        const auto peak = std::max_element(out.samples.begin(), out.samples.end());
        // The two bands stand one frame apart, so that the peak of their sum may lie on either.
        EXPECT_NEAR(static_cast<double>(peak - out.samples.begin()), double{kPulse}, 1.0);
    }
}

TEST_F(Render, GivesTheSameSamplesWhateverTheBlockLength)
{
    const SSetText set{.taps = {0.5, -0.25, 0.125, 0.3, -0.2}, .section = "[-1.9 0.95 0.01 -0.005]"};
    std::vector<SSetText> sets = {set, set, {.fs = 192000}};
    sets[1].fs = 96000;
    const std::string filter = writeFilter("filter.korvo", 2, sets);
    for (const int rate : {48000, 192000})
    {
        writeAudio(at("in.wav"), noise(SF_FORMAT_WAV | SF_FORMAT_FLOAT, rate, 2, 9001, 24));
        render({filter, at("in.wav"), at("whole.wav"), "--block", "4096"});
        const SAudio whole = readAudio(at("whole.wav"));
        for (const char* block : {"16", "17", "1000"})
        {
            render({filter, at("in.wav"), at("pieces.wav"), "--block", block});
            EXPECT_EQ(readAudio(at("pieces.wav")).samples, whole.samples)
                << rate << " Hz, blocks of " << block;
        }
    }
}

TEST_F(Render, RunsTheModeThatIsAskedFor)
{
    const std::string filter =
        writeFilter("modes.korvo", 1, {{.taps = {0.5}}, {.minPhase = true, .taps = {0.25}}});
    writeAudio(at("in.wav"), {SF_FORMAT_WAV | SF_FORMAT_FLOAT, 48000, 1, std::vector<double>(100, 1.0)});
    render({filter, at("in.wav"), at("one.wav")});
    render({filter, at("in.wav"), at("two.wav"), "--mode", "2"});
    EXPECT_EQ(readAudio(at("one.wav")).samples, std::vector<double>(100, 0.5));
    EXPECT_EQ(readAudio(at("two.wav")).samples, std::vector<double>(100, 0.25));
}

TEST_F(Render, CountsTheBlocksThatClip)
{
    const std::string filter = writeFilter("double.korvo", 1, {{.taps = {2.0}}});
    SAudio in{SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 1, std::vector<double>(300, 0.25)};
    in.samples[150] = 0.75;
    in.samples[299] = -0.75; // in the last, short block
    writeAudio(at("in.wav"), in);
    EXPECT_THAT(render({filter, at("in.wav"), at("out.wav"), "--block", "64"}),
                HasSubstr("clipped    2 of 5"));
    EXPECT_EQ(readAudio(at("out.wav")).samples[299], -1.0);
    EXPECT_THAT(render({filter, at("in.wav"), at("out.wav"), "--gain", "-6"}),
                HasSubstr("clipped    none of 1"));
    EXPECT_EQ(render({filter, at("in.wav"), at("out.wav"), "--quiet"}), "");
}

TEST_F(Render, AttenuatesBothBandsOfAHighRate)
{
    const std::string filter =
        writeFilter("high.korvo", 1, {{.fs = 96000, .taps = delayedTap(8)}, {.fs = 192000}});
    writeAudio(at("in.wav"), noise(SF_FORMAT_WAV | SF_FORMAT_PCM_24, 192000, 1, 4000, 24));
    render({filter, at("in.wav"), at("full.wav"), "--format", "float"});
    render({filter, at("in.wav"), at("quiet.wav"), "--format", "float", "--gain", "-20"});
    std::vector<double> expected = readAudio(at("full.wav")).samples;
    for (double& sample : expected)
        sample *= 0.1;
    EXPECT_THAT(readAudio(at("quiet.wav")).samples, testing::Pointwise(testing::DoubleNear(1e-6), expected));
}

TEST_F(Render, PassesChannelsThatTheFilterDoesNotHave)
{
    const std::string filter = writeFilter("half.korvo", 1, {{.taps = {0.5}}});
    const SAudio in = noise(SF_FORMAT_WAV | SF_FORMAT_PCM_24, 48000, 3, 500, 16);
    writeAudio(at("in.wav"), in);
    EXPECT_THAT(render({filter, at("in.wav"), at("out.wav")}),
                HasSubstr("the file has 3, the filter 1; the file's further ones pass unfiltered"));
    const SAudio out = readAudio(at("out.wav"));
    for (std::size_t i = 0; i < in.samples.size(); ++i)
        ASSERT_EQ(out.samples[i], in.samples[i] * (i % 3 == 0 ? 0.5 : 1.0)) << i;
}

} // namespace
