// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/krv/krv_fixture.h"

#include <algorithm>

using namespace korvotest;
using testing::HasSubstr;
using Render = CKrvTest;

namespace {

struct SFormatCase
{
    const char* out;
    int in;             ///< libsndfile's format of IN
    int bits;           ///< of the samples; single precision leaves up to 24 as they are
    const char* option; ///< --format
    int outSubtype;
};

constexpr SFormatCase kFormatCases[] = {
    {"out.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16, 16, "same", SF_FORMAT_PCM_16},
    {"out.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_24, 24, "same", SF_FORMAT_PCM_24},
    {"out.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_32, 24, "same", SF_FORMAT_PCM_32},
    {"out.wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT, 24, "same", SF_FORMAT_FLOAT},
    {"out.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 16, "same", SF_FORMAT_PCM_16},
    {"out.FLAC", SF_FORMAT_FLAC | SF_FORMAT_PCM_24, 24, "same", SF_FORMAT_PCM_24},
    {"out.aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_24, 24, "same", SF_FORMAT_PCM_24},
    {"out.aif", SF_FORMAT_AIFF | SF_FORMAT_FLOAT, 24, "same", SF_FORMAT_FLOAT},
    {"out.w64", SF_FORMAT_W64 | SF_FORMAT_PCM_32, 24, "same", SF_FORMAT_PCM_32},
    {"out.wav", SF_FORMAT_AIFF | SF_FORMAT_PCM_32, 16, "int16", SF_FORMAT_PCM_16},
    {"out.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_16, 16, "int24", SF_FORMAT_PCM_24},
    {"out.wav", SF_FORMAT_FLAC | SF_FORMAT_PCM_24, 24, "int32", SF_FORMAT_PCM_32},
    {"out.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_24, 24, "float", SF_FORMAT_FLOAT},
    {"out.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_U8, 8, "same", SF_FORMAT_PCM_16},
    {"out.wav", SF_FORMAT_WAV | SF_FORMAT_DOUBLE, 8, "same", SF_FORMAT_FLOAT},
    {"out.wav", SF_FORMAT_AU | SF_FORMAT_ULAW, 8, "same", SF_FORMAT_PCM_16},
    {"out.wav", SF_FORMAT_OGG | SF_FORMAT_VORBIS, 8, "same", SF_FORMAT_FLOAT}};

TEST_F(Render, KeepsEverySampleInTheFormatThatIsAskedFor)
{
    writeFilter("identity.korvo", 2, {{}});
    for (const SFormatCase& c : kFormatCases)
    {
        SCOPED_TRACE(testing::Message() << std::hex << c.in << " to " << c.option << " in " << c.out);
        write("in", noise(c.in, 48000, 2, 5003, c.bits));
        done(std::string("render identity.korvo in ") + c.out + " --block 1000 --format " + c.option);
        const SAudio out = read(c.out);
        EXPECT_EQ(out.format & SF_FORMAT_SUBMASK, c.outSubtype);
        EXPECT_EQ(out.rate, 48000);
        EXPECT_EQ(out.samples, read("in").samples);
    }
}

TEST_F(Render, TakesTheLatencyOffWhenItAligns)
{
    const std::pair<std::size_t, std::size_t> lengths[] = {{100, 5000}, {2000, 7}};
    for (const auto& [latency, frames] : lengths)
    {
        writeFilter("delay.korvo", 2, {{.taps = delayedTap(latency)}});
        const SAudio in = noise(SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 2, frames, 16);
        write("in.wav", in);
        done("render delay.korvo in.wav late.wav --block 64");
        std::vector<double> late(2 * latency);
        late.insert(late.end(), in.samples.begin(), in.samples.end());
        late.resize(in.samples.size());
        EXPECT_EQ(read("late.wav").samples, late);
        EXPECT_THAT(done("render delay.korvo in.wav aligned.wav --align --block 64"),
                    HasSubstr(std::to_string(latency) + " frames"));
        EXPECT_EQ(read("aligned.wav").samples, in.samples);
    }
}

// The base rate's taps stand 30 samples late, and so 60 and 120 at the stream's rate.
TEST_F(Render, AlignsBothBandsOfAHighRate)
{
    writeFilter("high.korvo", 1, {{.fs = 96000, .taps = delayedTap(30)}, {.fs = 192000}, {.fs = 384000}});
    const std::pair<int, const char*> rates[] = {{192000, "two-band, base rate 96000 Hz, ratio 2"},
                                                 {384000, "two-band, base rate 96000 Hz, ratio 4"}};
    for (const auto& [rate, path] : rates)
    {
        SCOPED_TRACE(rate);
        constexpr std::size_t kPulse = 3001;
        SAudio in{SF_FORMAT_WAV | SF_FORMAT_FLOAT, rate, 1, std::vector<double>(6003)};
        in.samples[kPulse] = 0.5;
        write("in.wav", in);
        EXPECT_THAT(done("render high.korvo in.wav out.wav --align --block 1023"), HasSubstr(path));
        const SAudio out = read("out.wav");
        ASSERT_EQ(out.samples.size(), in.samples.size());
        const auto peak = std::max_element(out.samples.begin(), out.samples.end());
        // The two bands stand one frame apart, so that the peak of their sum may lie on either.
        EXPECT_NEAR(static_cast<double>(peak - out.samples.begin()), double{kPulse}, 1.0);
    }
}

TEST_F(Render, GivesTheSameSamplesWhateverTheBlockLength)
{
    const SSet set{.taps = {0.5F, -0.25F, 0.125F, 0.3F, -0.2F}, .sections = {{-1.9F, 0.95F, 0.01F, -0.005F}}};
    std::vector<SSet> sets = {set, set, {.fs = 192000}};
    sets[1].fs = 96000;
    writeFilter("filter.korvo", 2, sets);
    for (const int rate : {48000, 192000})
    {
        write("in.wav", noise(SF_FORMAT_WAV | SF_FORMAT_FLOAT, rate, 2, 9001, 24));
        done("render filter.korvo in.wav whole.wav --block 4096");
        for (const char* block : {"16", "17", "1000"})
        {
            done(std::string("render filter.korvo in.wav pieces.wav --block ") + block);
            EXPECT_EQ(read("pieces.wav").samples, read("whole.wav").samples)
                << rate << " Hz, blocks of " << block;
        }
    }
}

TEST_F(Render, RunsTheModeThatIsAskedForOnTheChannelsThatTheFilterHas)
{
    writeFilter("half.korvo", 1, {{.taps = {0.5F}}, {.minPhase = true, .taps = {0.25F}}});
    const SAudio in = noise(SF_FORMAT_WAV | SF_FORMAT_PCM_24, 48000, 3, 500, 16);
    write("in.wav", in);
    for (const int mode : {1, 2})
    {
        EXPECT_THAT(done("render half.korvo in.wav out.wav --mode " + std::to_string(mode)),
                    HasSubstr("3 in the file, 1 in the filter; the others pass unfiltered"));
        const SAudio out = read("out.wav");
        for (std::size_t i = 0; i < in.samples.size(); ++i)
            ASSERT_EQ(out.samples[i], in.samples[i] * (i % 3 == 0 ? 0.5 / mode : 1.0)) << i;
    }
}

TEST_F(Render, CountsTheBlocksThatClip)
{
    writeFilter("double.korvo", 1, {{.taps = {2.0F}}});
    SAudio in{SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 1, std::vector<double>(300, 0.25)};
    in.samples[150] = 0.75;
    in.samples[299] = -0.75; // in the last, short block
    write("in.wav", in);
    EXPECT_THAT(done("render double.korvo in.wav out.wav --block 64"), HasSubstr("clipped    2 of 5"));
    EXPECT_EQ(read("out.wav").samples[299], -1.0);
    EXPECT_THAT(done("render double.korvo in.wav out.wav --gain -6"), HasSubstr("clipped    none of 1"));
    EXPECT_EQ(done("render double.korvo in.wav out.wav --quiet"), "");
}

TEST_F(Render, AttenuatesBothBandsOfAHighRate)
{
    writeFilter("high.korvo", 1, {{.fs = 96000, .taps = delayedTap(8)}, {.fs = 192000}});
    write("in.wav", noise(SF_FORMAT_WAV | SF_FORMAT_PCM_24, 192000, 1, 4000, 24));
    done("render high.korvo in.wav full.wav --format float");
    done("render high.korvo in.wav quiet.wav --format float --gain -20");
    std::vector<double> expected = read("full.wav").samples;
    for (double& sample : expected)
        sample *= 0.1;
    EXPECT_THAT(read("quiet.wav").samples, testing::Pointwise(testing::DoubleNear(1e-6), expected));
}

} // namespace
