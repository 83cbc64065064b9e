// SPDX-License-Identifier: GPL-3.0-or-later
#include <gmock/gmock.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "tests/krv/audio_files.h"
#include "tests/support/run_program.h"
#include "tests/support/temp_folder.h"

namespace {

using namespace korvotest;
using testing::AllOf;
using testing::HasSubstr;

class CMeasurementCommands : public testing::Test
{
protected:
    std::string at(const std::string& name) const { return (m_folder.path() / name).string(); }

    static SProgramResult krv(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), KRV_PROGRAM);
        return runProgram(arguments, {});
    }

    /// Silence and from `onsets[c]` on a decaying oscillation of 200 Hz at 48 kHz in channel c; an onset of
    /// -1 leaves the channel silent.
    void writeResponse(const std::string& name, const std::vector<int>& onsets, int rate = 48000,
                       int frames = 4800, int format = SF_FORMAT_WAV | SF_FORMAT_PCM_24) const
    {
        SAudio audio{format, rate, static_cast<int>(onsets.size()), {}};
        for (int f = 0; f < frames; ++f)
        {
            for (const int onset : onsets)
            {
                const double t = (f - onset) / 48000.0;
                const double value = std::cos(2.0 * M_PI * 200.0 * t) * std::exp(-60.0 * t) * 0.75;
                audio.samples.push_back(onset < 0 || f < onset ? 0.0 : value);
            }
        }
        writeAudio(m_folder.path() / name, audio);
    }

    CTempFolder m_folder;
};

using IrCommand = CMeasurementCommands;
using MicCommand = CMeasurementCommands;

TEST_F(IrCommand, ShowsWhereEachChannelStarts)
{
    writeResponse("in.wav", {2400, -1});
    const SProgramResult result = krv({"ir", at("in.wav"), "--level", "0.5"});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    // A quarter of a period of 200 Hz is 60 samples.
    for (const char* part :
         {"2 channels, 48000 Hz", "4800 frames (100.000 ms)", "-2.50 dB peak",
          "2400  (50.000 ms)  value +0.75", "first at 0.5", "2399  (49.979 ms)  last below",
          "2399  (49.979 ms) and 2460  (51.250 ms)", "silent"})
        EXPECT_THAT(result.out, HasSubstr(part));
}

TEST_F(IrCommand, ShowsLevelsAndCrossingsAtTheEdges)
{
    struct SCase
    {
        std::vector<double> samples;
        std::vector<const char*> parts;
    };
    const SCase cases[] = {
        {{0.1, 0.5, 1.0, 0.5}, {" 0.00 dB peak", "none and none"}},
        {{1.0, -0.5, 0.0, 0.0}, {"none and 1 "}},
        {{-1.0, -0.5, 0.5, 0.0}, {"none and 2 "}},
        {{0.0, 0.5, 1.0, 0.0}, {"    0  (0.000 ms) and 3 "}},
        {{0.9999, 0.9999, -0.9999, 0.9999}, {" 0.00 dB peak, 0.00 dB RMS"}},
        {{0.0, 1e-30, 0.0, 0.0}, {"-600.00 dB peak, -606.02 dB RMS"}},
        {{0.0, 1e30, 0.0, 0.0}, {"600.00 dB peak, 593.98 dB RMS"}},
    };
    for (const SCase& c : cases)
    {
        writeAudio(m_folder.path() / "in.wav", {SF_FORMAT_WAV | SF_FORMAT_FLOAT, 48000, 1, c.samples});
        const SProgramResult result = krv({"ir", at("in.wav")});
        for (const char* part : c.parts)
            EXPECT_THAT(result.out, HasSubstr(part));
    }
}

TEST_F(IrCommand, CutsAndShiftsAllChannelsAlikeWithoutLoss)
{
    struct SCase
    {
        std::vector<std::string> options;
        int first, last; ///< least and most that may be removed
        bool shift;
    };
    // The channel that starts first is the second, the third is silent. A band-limited copy starts earlier,
    // by up to about a period of its 400 Hz.
    const SCase cases[] = {
        {{"--trim"}, 2399, 2399, false},
        {{"--trim", "--level", "0.05", "--margin", "2", "--filtered"}, 2400 - 216, 2400 - 96, false},
        {{"--shift", "--margin", "2"}, 2304, 2304, true},
        {{"--shift", "--margin", "1000"}, 0, 0, true}};
    writeResponse("in.aiff", {2600, 2400, -1}, 48000, 4800, SF_FORMAT_AIFF | SF_FORMAT_PCM_16);
    const SAudio in = readAudio(at("in.aiff"));
    for (const SCase& c : cases)
    {
        std::vector<std::string> arguments{"ir", at("in.aiff"), at("out.wav")};
        arguments.insert(arguments.end(), c.options.begin(), c.options.end());
        const SProgramResult result = krv(arguments);
        ASSERT_EQ(result.exitCode, 0) << result.err;
        const int removed = std::stoi(result.out.substr(result.out.find(" by ") + 4));
        EXPECT_GE(removed, c.first);
        EXPECT_LE(removed, c.last);
        const SAudio edited = readAudio(at("out.wav"));
        EXPECT_EQ(edited.format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_16);
        std::vector<double> expected(in.samples.begin() + 3 * removed, in.samples.end());
        expected.resize(c.shift ? in.samples.size() : expected.size(), 0.0);
        EXPECT_EQ(edited.samples, expected) << c.options[0];
    }
}

TEST_F(IrCommand, RefusesWhatItCannotDoAndLeavesNoFile)
{
    writeResponse("in.wav", {2400});
    writeResponse("rate.wav", {2400}, 32000);
    writeResponse("silent.wav", {-1});
    writeResponse("short.wav", {1}, 48000, 3);
    SAudio broken{
        SF_FORMAT_WAV | SF_FORMAT_FLOAT, 48000, 1, {0.0, 1.0, std::numeric_limits<double>::quiet_NaN()}};
    writeAudio(m_folder.path() / "nan.wav", broken);
    struct SCase
    {
        std::vector<std::string> arguments;
        int exitCode;
        const char* message;
    };
    const SCase cases[] = {
        {{"rate.wav"}, 1, "44100, 48000, 88200 or 96000 Hz"},
        {{"nan.wav"}, 1, "frame 2 of channel 1"},
        {{"silent.wav", "out.wav", "--trim"}, 1, "silent"},
        {{"short.wav", "out.wav", "--shift"}, 1, "3 frames"},
        {{"in.wav", "out.wav"}, 2, "--trim or --shift"},
        {{"in.wav", "--trim"}, 2, "OUT"},
        {{"in.wav", "out.wav", "--trim", "--shift"}, 2, "exclude"},
        {{"in.wav", "out.wav", "--shift", "--filtered"}, 2, "--trim as well"},
        {{"in.wav", "out.wav", "--trim", "--level", "0"}, 2, "--level"},
        {{"in.wav", "out.wav", "--trim", "--level", "nan"}, 2, "--level"},
        {{"in.wav", "out.wav", "--trim", "--margin", "-1"}, 2, "--margin"},
        {{"in.wav", "out.wav", "--trim", "--margin", "inf"}, 2, "finite"},
        {{"in.wav", "out.xyz", "--trim"}, 2, ".wav, .flac"},
        {{"in.wav", "in.wav", "--trim"}, 2, "same file"},
        {{"in.wav", "none/out.wav", "--trim"}, 1, "none/out.wav"},
    };
    for (const SCase& c : cases)
    {
        std::vector<std::string> arguments{"ir"};
        for (const std::string& argument : c.arguments)
            arguments.push_back(argument.find('.') == std::string::npos ? argument : at(argument));
        const SProgramResult result = krv(arguments);
        EXPECT_EQ(result.exitCode, c.exitCode) << result.err;
        EXPECT_THAT(result.err, HasSubstr(c.message));
        EXPECT_FALSE(std::filesystem::exists(at("out.wav"))) << c.message;
    }
}

TEST_F(MicCommand, ReadsWhatMeasurementProgramsWrite)
{
    const auto table = [](const std::string& separator, const std::string& tail, const std::string& end) {
        std::string text;
        for (const char* frequency : {"20", "50.5", "1e2", "200", "500", "1000", "5000", "+20000"})
            text += frequency + separator + "-1.25" + tail + end;
        return text;
    };
    const std::string files[] = {"\xEF\xBB\xBF\"Sens Factor =-1.2dB\"\r\n* Freq, dB\r\n\r\n  # x\r\n" +
                                     table("\t", "", "\r\n"),
                                 table(", ", ", 12.5", "\n"),
                                 table(";", ";12.5;more", "\n"),
                                 table(",", "", "\n"),
                                 table("  ", " ", "\n") + "*",
                                 table(",", ", 0.0", "\n"),
                                 table(",", ",text with blanks", "\n"),
                                 table(",", " dB", "\n"),
                                 table(",", " # 20,5 c", "\n"),
                                 table("\t", " *", "\r") + "\r# 20"};
    for (const std::string& text : files)
    {
        const SProgramResult result = krv({"mic", m_folder.write("mic.txt", text).string()});
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_THAT(result.out, HasSubstr("8 points from 20 to 20000 Hz, -1.25 to -1.25 dB"));
    }
}

TEST_F(MicCommand, NamesTheRuleAndTheLine)
{
    const std::string rise = "100 0\n200 0\n300 0\n400 0\n500 0\n600 0\n";
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"", {"0 points", "at least 8"}},
        {"# c\n20 0\n" + rise, {"7 points", "line 8"}},
        {"20 0\n" + rise + "600 0\n20000 0\n", {"line 8", "must rise"}},
        {"-1 0\n" + rise + "20000 0\n", {"line 1", "0 to 5000 Hz"}},
        {"20 0\n" + rise + "9999 0\n", {"line 8", "10000 to 192000 Hz"}},
        {"20 0\n" + rise + "20000 101\n", {"line 8", "highest", "-100 to 100 dB"}},
        {"20 -201\n" + rise + "20000 0\n", {"line 1", "lowest", "-200 to 100 dB"}},
        {"20 0\n30,5\t0,5\n", {"line 2", "decimal point"}},
        {"20 0\nfreq dB\n", {"line 2", "'freq'", "frequency in Hz"}},
        {"20 0\n\n30\n", {"line 3", "missing", "level in dB"}},
        {"20 0\r\n30 # x\r\n", {"line 2", "a value is missing", "level in dB"}},
        {std::string(39, 'x') + "\xC3\xA4 0", {"line 1", "'" + std::string(39, 'x') + "...'"}},
        {"20 nan\n", {"line 1", "'nan'"}},
        {"20 1e99\n", {"line 1", "'1e99'"}},
        {std::string("\xFF\xFE"
                     "2"),
         {"UTF-16"}},
    };
    for (const auto& [text, parts] : cases)
    {
        const SProgramResult result = krv({"mic", m_folder.write("mic.txt", text).string()});
        EXPECT_EQ(result.exitCode, 1);
        for (const std::string& part : parts)
            EXPECT_THAT(result.err, AllOf(HasSubstr("mic.txt"), HasSubstr(part))) << text;
    }
    EXPECT_THAT(krv({"mic", "/dev/zero"}).err, HasSubstr("16 MiB"));
    EXPECT_THAT(krv({"mic", at("none.txt")}).err, HasSubstr("cannot be read"));
}

} // namespace
