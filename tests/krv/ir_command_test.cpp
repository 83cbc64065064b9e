// SPDX-License-Identifier: GPL-3.0-or-later
// The commands for measurements: ir and mic.

#include "tests/krv/krv_fixture.h"

using namespace korvotest;
using testing::AllOf;
using testing::HasSubstr;

namespace {

class IrCommand : public CKrvTest
{
protected:
    /// Silence and from `onsets[c]` on a decaying oscillation of 200 Hz at 48 kHz in channel c; an onset of
    /// -1 leaves the channel silent.
    void writeResponse(const std::string& name, int format, const std::vector<int>& onsets) const
    {
        SAudio audio{format, 48000, static_cast<int>(onsets.size()), {}};
        for (int f = 0; f < 4800; ++f)
        {
            for (const int onset : onsets)
            {
                const double t = (f - onset) / 48000.0;
                const double value = std::cos(2.0 * M_PI * 200.0 * t) * std::exp(-60.0 * t) * 0.75;
                audio.samples.push_back(onset < 0 || f < onset ? 0.0 : value);
            }
        }
        write(name, audio);
    }
};

using MicCommand = CKrvTest;

TEST_F(IrCommand, ShowsWhereEachChannelStarts)
{
    writeResponse("in.wav", SF_FORMAT_WAV | SF_FORMAT_PCM_24, {2400, -1});
    // A quarter of a period of 200 Hz is 60 samples.
    for (const char* part :
         {"2 channels, 48000 Hz", "4800 frames (100.000 ms)", "-2.50 dB peak",
          "2400  (50.000 ms)  value +0.75", "first at 0.5", "2399  (49.979 ms)  last below",
          "2399  (49.979 ms) and 2460  (51.250 ms)", "silent"})
        EXPECT_THAT(done("ir in.wav --level 0.5"), HasSubstr(part));
    const std::pair<std::vector<double>, const char*> edges[] = {
        {{0.1, 0.5, 1.0, 0.5}, "none and none"},
        {{1.0, -0.5, 0.0, 0.0}, "none and 1 "},
        {{-1.0, -0.5, 0.5, 0.0}, "none and 2 "},
        {{0.0, 0.5, 1.0, 0.0}, "    0  (0.000 ms) and 3 "},
        {{0.9999, 0.9999, -0.9999, 0.9999}, " 0.00 dB peak, 0.00 dB RMS"},
        {{0.0, 1e-30, 0.0, 0.0}, "-600.00 dB peak, -606.02 dB RMS"},
        {{0.0, 1e30, 0.0, 0.0}, "600.00 dB peak, 593.98 dB RMS"},
    };
    for (const auto& [samples, part] : edges)
    {
        write("edge.wav", {SF_FORMAT_WAV | SF_FORMAT_FLOAT, 48000, 1, samples});
        EXPECT_THAT(done("ir edge.wav"), HasSubstr(part));
    }
}

TEST_F(IrCommand, CutsAndShiftsAllChannelsAlikeWithoutLoss)
{
    struct SCase
    {
        std::string options;
        int first, last; ///< least and most that may be removed
    };
    // The channel that starts first is the second, the third is silent. A band-limited copy starts earlier,
    // by up to about a period of its 400 Hz.
    const SCase cases[] = {{"--trim", 2399, 2399},
                           {"--trim --level 0.05 --margin 2 --filtered", 2400 - 216, 2400 - 96},
                           {"--shift --margin 2", 2304, 2304},
                           {"--shift --margin 1000", 0, 0}};
    writeResponse("in.aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_16, {2600, 2400, -1});
    const SAudio in = read("in.aiff");
    for (const SCase& c : cases)
    {
        const std::string out = done("ir in.aiff out.wav " + c.options);
        const int removed = std::stoi(out.substr(out.find(" by ") + 4));
        EXPECT_GE(removed, c.first);
        EXPECT_LE(removed, c.last);
        const SAudio edited = read("out.wav");
        EXPECT_EQ(edited.format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_16);
        std::vector<double> expected(in.samples.begin() + 3 * removed, in.samples.end());
        if (c.options.starts_with("--shift"))
            expected.resize(in.samples.size(), 0.0);
        EXPECT_EQ(edited.samples, expected) << c.options;
    }
}

TEST_F(MicCommand, ReadsWhatMeasurementProgramsWrite)
{
    struct SStyle
    {
        const char *head, *separator, *tail, *lineEnd, *foot;
    };
    const SStyle styles[] = {
        {"\xEF\xBB\xBF\"Sens Factor =-1.2dB\"\r\n* Freq, dB\r\n\r\n  # x\r\n", "\t", "", "\r\n", ""},
        {"", ", ", ",12.5", "\n", ""},
        {"", ";", ";12.5;more", "\n", ""},
        {"", ",", "", "\n", ""},
        {"", "  ", " ", "\n", "*"},
        {"", ",", ",text with blanks", "\n", ""},
        {"", ",", " dB", "\n", ""},
        {"", ",", " # 20,5 c", "\n", ""},
        {"", "\t", " *", "\r", "\r# 20"}};
    for (const SStyle& style : styles)
    {
        std::string text = style.head;
        for (const std::string frequency : {"20", "50.5", "1e2", "200", "500", "1000", "5000", "+20000"})
            text += frequency + style.separator + "-1.25" + style.tail + style.lineEnd;
        m_folder.write("mic.txt", text + style.foot);
        EXPECT_THAT(done("mic mic.txt"), HasSubstr("8 points from 20 to 20000 Hz, -1.25 to -1.25 dB"));
    }
}

TEST_F(MicCommand, NamesTheRuleAndTheLine)
{
    const std::string rise = "100 0\n200 0\n300 0\n400 0\n500 0\n600 0\n";
    const std::vector<std::string> cases[] = {
        // the file, and what is said of it
        {"", "0 points", "at least 8"},
        {"# c\n20 0\n" + rise, "7 points", "line 8"},
        {"20 0\n" + rise + "600 0\n20000 0\n", "line 8", "must rise"},
        {"-1 0\n" + rise + "20000 0\n", "line 1", "0 to 5000 Hz"},
        {"20 0\n" + rise + "9999 0\n", "line 8", "10000 to 192000 Hz"},
        {"20 0\n" + rise + "20000 101\n", "line 8", "highest", "-100 to 100 dB"},
        {"20 -201\n" + rise + "20000 0\n", "line 1", "lowest", "-200 to 100 dB"},
        {"20 0\n30,5\t0,5\n", "line 2", "decimal point"},
        {"20 0\nfreq dB\n", "line 2", "'freq'", "frequency in Hz"},
        {"20 0\n\n30\n", "line 3", "missing", "level in dB"},
        {"20 0\r\n30 # x\r\n", "line 2", "a value is missing", "level in dB"},
        {std::string(39, 'x') + "\xC3\xA4 0", "line 1", "'" + std::string(39, 'x') + "...'"},
        {"20 nan\n", "line 1", "'nan'"},
        {"20 1e99\n", "line 1", "'1e99'"},
        {"\xFF\xFE\x32", "UTF-16"},
    };
    for (const std::vector<std::string>& c : cases)
    {
        m_folder.write("mic.txt", c[0]);
        const SProgramResult result = krv("mic mic.txt");
        EXPECT_EQ(result.exitCode, 1);
        for (std::size_t i = 1; i < c.size(); ++i)
            EXPECT_THAT(result.err, AllOf(HasSubstr("'mic.txt'"), HasSubstr(c[i]))) << c[0];
    }
}

} // namespace
