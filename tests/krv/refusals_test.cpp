// SPDX-License-Identifier: GPL-3.0-or-later
// What krv does not do, and what it says then.

#include "tests/krv/krv_fixture.h"

#include <chrono>
#include <csignal>
#include <fstream>
#include <limits>
#include <thread>

using namespace korvotest;
using testing::HasSubstr;

namespace {

constexpr int kWav16 = SF_FORMAT_WAV | SF_FORMAT_PCM_16;

class Refusals : public CKrvTest
{
protected:
    void SetUp() override
    {
        const double nan = std::numeric_limits<double>::quiet_NaN();
        const SAudio stereo = noise(kWav16, 48000, 2, 20000, 16);
        write("in.wav", stereo);
        write("slow.wav", {kWav16, 32000, 1, {0.0, 0.1}});
        write("fast.wav", {kWav16, 192000, 1, {0.0, 0.1}});
        write("nine.wav", {kWav16, 48000, 9, std::vector<double>(90)});
        write("header.wav", {kWav16, 48000, 2, {}});
        write("silent.wav", {kWav16, 48000, 1, std::vector<double>(90)});
        write("float.wav", {SF_FORMAT_WAV | SF_FORMAT_FLOAT, 48000, 1, {0.0, 1.0, nan}});
        m_folder.write("empty", "");
        m_folder.write("text.wav", "this is no audio");
        m_folder.write("broken.korvo", "<brisa><Opal>");
        writeFilter("f.korvo", 2, {{.fs = 44100}, {}, {.fs = 192000}});
    }

    /// The words of a header's length, at two places.
    void writeLengths(const std::string& name, std::uint32_t atFour, std::uint32_t atForty) const
    {
        std::fstream header(at(name), std::ios::in | std::ios::out | std::ios::binary);
        header.seekp(4).write(reinterpret_cast<const char*>(&atFour), sizeof atFour);
        header.seekp(40).write(reinterpret_cast<const char*>(&atForty), sizeof atForty);
    }

    void expectRefusal(const std::string& line, int exitCode, const std::string& message) const
    {
        SCOPED_TRACE(line);
        const std::vector<std::string> before = files();
        const SProgramResult result = krv(line);
        EXPECT_EQ(result.exitCode, exitCode);
        EXPECT_THAT(result.err, testing::StartsWith("krv: "));
        EXPECT_THAT(result.err, HasSubstr(message));
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(files(), testing::UnorderedElementsAreArray(before));
    }
};

TEST_F(Refusals, AreOneSentenceAndLeaveNoFileBehind)
{
    struct SRefusal
    {
        const char* line;
        int exitCode;
        const char* message; ///< a part of it
    };
    const SRefusal refusals[] = {
        {"render f.korvo slow.wav o.wav", 1, "slow.wav' is at 32000 Hz; the filter offers 44100, 48000 Hz"},
        {"render f.korvo fast.wav o.wav", 1, "fast.wav' is at 192000 Hz; the filter offers 44100, 48000 Hz"},
        {"render f.korvo nine.wav o.wav", 1, "nine.wav' has 9 channels; 1 to 8"},
        {"render f.korvo empty o.wav", 1, "empty' is empty"},
        {"render f.korvo . o.wav", 1, "'.' is a folder, not an audio file"},
        {"render ./ in.wav o.wav", 1, "'./' is a folder; FILTER is a path"},
        {"render f.korvo header.wav o.wav", 1, "header.wav' holds no audio"},
        {"render f.korvo text.wav o.wav", 1, "text.wav' cannot be read"},
        {"render f.korvo in.wav none/\x1b[1m.wav", 1, "none/?[1m.wav' cannot be made"},
        {"render f.korvo in.wav ./in.wav", 2, "IN and OUT are the same file"},
        {"render f.korvo in.wav o.mp3", 2, "OUT may end in .wav, .flac, .aiff, .aif or .w64"},
        {"render f.korvo float.wav o.flac", 2, "--format may be int16, int24"},
        {"render no.korvo in.wav o.wav", 1, "no.korvo' is not there; FILTER is a path, or an index or name"},
        {"render empty in.wav o.wav", 1, "empty' is empty; a filter document is needed"},
        {"render broken.korvo in.wav o.wav", 1, "broken.korvo' is not a filter document"},
        {"render in.wav in.wav o.wav", 1, "in.wav' is not a filter document"},
        {"render f.korvo in.wav o.wav --mode 2", 1, "has no filters for mode 2; --mode 1 will do"},
        {"render f.korvo in.wav o.wav --mode 3", 2, "--mode: '3' is not accepted; 1 or 2 is needed"},
        {"render f.korvo in.wav o.wav --gain 3", 2, "--gain: '3' is not accepted; 0 dB or less"},
        {"render f.korvo in.wav o.wav --block 15", 2, "a whole number from 16 to 4096"},
        {"render f.korvo in.wav o.wav --block 4097", 2, "a whole number from 16 to 4096"},
        {"render f.korvo in.wav o.wav --block 64.5", 2, "--block: '64.5'"},
        {"render f.korvo in.wav o.wav --block", 2, "--block needs a value (see krv render --help)"},
        {"render f.korvo in.wav o.wav --format int20", 2, "int16, int24, int32, float or same"},
        {"render f.korvo in.wav o.wav more", 2, "'more'"},
        {"render f.korvo in.wav", 2, "OUT"},
        {"", 2, "render, info, filters, ir, mic, bench"},
        {"rendr", 2, "'rendr' is no command"},
        {"bench f.korvo --seconds nan", 2, "0.001 to 60"},
        {"ir slow.wav", 1, "44100, 48000, 88200 or 96000 Hz"},
        {"ir float.wav", 1, "frame 2 of channel 1"},
        {"ir silent.wav o.wav --trim", 1, "silent"},
        {"ir in.wav o.wav", 2, "--trim or --shift"},
        {"ir in.wav --trim", 2, "OUT"},
        {"ir in.wav o.wav --trim --shift", 2, "exclude"},
        {"ir in.wav o.wav --shift --filtered", 2, "--trim as well"},
        {"ir in.wav o.wav --trim --margin inf", 2, "finite"},
        {"ir in.wav in.wav --trim", 2, "same file"},
        {"mic none.txt", 1, "cannot be read"},
        {"mic /dev/zero", 1, "16 MiB"},
    };
    for (const SRefusal& refusal : refusals)
        expectRefusal(refusal.line, refusal.exitCode, refusal.message);
}

TEST_F(Refusals, OfFilesThatEndEarly)
{
    SAudio audio = read("in.wav");
    for (const int container :
         {SF_FORMAT_WAV, SF_FORMAT_AIFF, SF_FORMAT_W64, SF_FORMAT_RF64, SF_FORMAT_AU, SF_FORMAT_FLAC})
    {
        audio.format = container | SF_FORMAT_PCM_16;
        write("cut", audio);
        std::filesystem::resize_file(at("cut"), std::filesystem::file_size(at("cut")) / 2);
        expectRefusal("render f.korvo cut o.wav", 1, "ends early");
    }
    // Writers to a pipe cannot go back to put the length in, and their files are whole.
    constexpr std::uint32_t kUnknown = 0xFFFFFFFF;
    writeLengths("in.wav", kUnknown, kUnknown);
    done("render f.korvo in.wav out.wav");
    EXPECT_EQ(read("out.wav").frames(), 20000U);
}

TEST_F(Refusals, OfAFullDiskKeepTheOldFile)
{
    for (const std::string name : {"out.wav", "out.flac", "out.aiff", "out.w64"})
    {
        m_folder.write(name, "what was there before");
        const std::vector<std::string> before = files();
        const SProgramResult result = runProgram(command("render f.korvo in.wav " + name, "ulimit -f 20"));
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_THAT(result.err, HasSubstr(name + "' cannot be written: File too large"));
        EXPECT_THAT(files(), testing::UnorderedElementsAreArray(before));
        EXPECT_EQ(std::filesystem::file_size(at(name)), 21U);
    }
    for (const std::string argument : {"info f.korvo", "--help"})
    {
        const SProgramResult result = krv(argument + " > /dev/full");
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.err, "krv: standard output cannot be written\n");
    }
}

TEST_F(Refusals, ToGoOnWhenInterrupted)
{
    // A gigabyte of silence that takes up no room on the disk.
    constexpr std::uint32_t kBytes = 1U << 30;
    write("long.wav", {kWav16, 48000, 2, {0.0, 0.0}});
    writeLengths("long.wav", kBytes + 36, kBytes);
    std::filesystem::resize_file(at("long.wav"), kBytes + std::uintmax_t{44});
    const std::vector<std::string> before = files();
    const auto waitForOutput = [&](const CProgram& program) {
        while (files().size() == before.size() && program.isRunning())
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    };
    const std::string line = "render f.korvo long.wav out.wav --block 16";

    // As nohup starts it: what is ignored stays ignored.
    CProgram program(command(line, "trap '' HUP"));
    waitForOutput(program);
    kill(program.process(), SIGHUP);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(program.isRunning());
    kill(program.process(), SIGTERM);
    const SProgramResult result = program.finish();
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.err, HasSubstr("interrupted"));
    EXPECT_THAT(files(), testing::UnorderedElementsAreArray(before));

    // Some tools send their signal twice, and the second one kills.
    CProgram killed(command(line));
    waitForOutput(killed);
    while (killed.isRunning())
    {
        kill(killed.process(), SIGINT);
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
    EXPECT_THAT(files(), testing::UnorderedElementsAreArray(before));
}

} // namespace
