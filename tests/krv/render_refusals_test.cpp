// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/krv/render_fixture.h"

#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <thread>

using namespace korvotest;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

struct SRefusal
{
    const char* name;
    std::vector<std::string> arguments;
    int exitCode;
    const char* message; // a part of it
};

class RenderRefuses : public CRenderTest
{
protected:
    void SetUp() override
    {
        const SAudio stereo = noise(SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 2, 20000, 16);
        writeAudio(at("in.wav"), stereo);
        writeAudio(at("slow.wav"), {SF_FORMAT_WAV | SF_FORMAT_PCM_16, 32000, 1, {0.0, 0.1}});
        writeAudio(at("fast.wav"), {SF_FORMAT_WAV | SF_FORMAT_PCM_16, 192000, 1, {0.0, 0.1}});
        writeAudio(at("nine.wav"), {SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 9, std::vector<double>(90)});
        writeAudio(at("header.wav"), {SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 2, {}});
        writeAudio(at("float.wav"), {SF_FORMAT_WAV | SF_FORMAT_FLOAT, 48000, 1, {0.0, 0.1}});
        m_folder.write("empty.wav", "");
        m_folder.write("text.wav", "this is no audio");
        for (const int container :
             {SF_FORMAT_WAV, SF_FORMAT_AIFF, SF_FORMAT_W64, SF_FORMAT_RF64, SF_FORMAT_AU, SF_FORMAT_FLAC})
            writeCut("cut" + std::to_string(container), container | SF_FORMAT_PCM_16, stereo);
        m_filter = writeFilter("f.korvo", 2, {{.fs = 44100}, {}, {.fs = 192000}});
        m_folder.write("broken.korvo", "<brisa><Opal>");
    }

    void writeCut(const std::string& name, int format, SAudio audio)
    {
        audio.format = format;
        writeAudio(at(name), audio);
        std::filesystem::resize_file(at(name), std::filesystem::file_size(at(name)) / 2);
    }

    std::string cut(int container) const { return at("cut" + std::to_string(container)); }

    void waitForOutput(const CProgram& program, const std::vector<std::string>& before) const
    {
        while (files().size() == before.size() && program.isRunning())
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }

    std::string m_filter;
};

TEST_F(RenderRefuses, WithAMessageAndNoFileLeftBehind)
{
    const std::string f = m_filter;
    const std::string in = at("in.wav");
    const std::string out = at("out.wav");
    const SRefusal refusals[] = {
        {"rate", {f, at("slow.wav"), out}, 1, "slow.wav' is at 32000 Hz; the filter offers 44100, 48000 Hz"},
        {"no base rate",
         {f, at("fast.wav"), out},
         1,
         "fast.wav' is at 192000 Hz; the filter offers 44100, 48000 Hz"},
        {"channels", {f, at("nine.wav"), out}, 1, "nine.wav' has 9 channels; 1 to 8"},
        {"empty", {f, at("empty.wav"), out}, 1, "empty.wav' is empty"},
        {"no frames", {f, at("header.wav"), out}, 1, "header.wav' holds no audio"},
        {"not audio", {f, at("text.wav"), out}, 1, "text.wav' cannot be read"},
        {"no input", {f, at("none.wav"), out}, 1, "none.wav' cannot be read: No such file"},
        {"folder as input", {f, m_folder.path(), out}, 1, "is a folder"},
        {"cut WAV", {f, cut(SF_FORMAT_WAV), out}, 1, "ends early"},
        {"cut AIFF", {f, cut(SF_FORMAT_AIFF), out}, 1, "ends early"},
        {"cut W64", {f, cut(SF_FORMAT_W64), out}, 1, "ends early"},
        {"cut RF64", {f, cut(SF_FORMAT_RF64), out}, 1, "ends early"},
        {"cut AU", {f, cut(SF_FORMAT_AU), out}, 1, "ends early"},
        {"cut FLAC", {f, cut(SF_FORMAT_FLAC), out}, 1, "ends early"},
        {"same file", {f, in, m_folder.path() / "." / "in.wav"}, 2, "IN and OUT are the same file"},
        {"ending", {f, in, at("out.mp3")}, 2, "OUT may end in .wav, .flac, .aiff, .aif or .w64"},
        {"no folder", {f, in, at("none/out.wav")}, 1, "none/out.wav' cannot be made"},
        {"float FLAC", {f, at("float.wav"), at("out.flac")}, 2, "--format may be int16, int24"},
        {"no filter",
         {at("no.korvo"), in, out},
         1,
         "no.korvo' is not there; FILTER is a path, or an index or name"},
        {"broken filter", {at("broken.korvo"), in, out}, 1, "broken.korvo' is not a filter document"},
        {"audio as filter", {in, in, out}, 1, "in.wav' is not a filter document"},
        {"other mode", {f, in, out, "--mode", "2"}, 1, "has no filters for mode 2; --mode 1 will do"},
        {"no such mode", {f, in, out, "--mode", "3"}, 2, "--mode"},
        {"gain", {f, in, out, "--gain", "3"}, 2, "--gain: 3 dB would amplify"},
        {"no gain", {f, in, out, "--gain", "nan"}, 2, "--gain"},
        {"block", {f, in, out, "--block", "15"}, 2, "16 to 4096"},
        {"format", {f, in, out, "--format", "int20"}, 2, "int24"},
        {"missing argument", {f, in}, 2, "OUT"},
    };
    const std::vector<std::string> before = files();
    for (const SRefusal& refusal : refusals)
    {
        SCOPED_TRACE(refusal.name);
        std::vector<std::string> arguments = {"render"};
        arguments.insert(arguments.end(), refusal.arguments.begin(), refusal.arguments.end());
        const SProgramResult result = krv(arguments);
        EXPECT_EQ(result.exitCode, refusal.exitCode);
        EXPECT_THAT(result.err, testing::StartsWith("krv: "));
        EXPECT_THAT(result.err, HasSubstr(refusal.message));
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
        EXPECT_THAT(result.out, IsEmpty());
        EXPECT_THAT(files(), testing::UnorderedElementsAreArray(before));
    }
}

TEST_F(RenderRefuses, AFullDiskAndKeepsTheOldFile)
{
    for (const std::string name : {"out.wav", "out.flac", "out.aiff", "out.w64"})
    {
        m_folder.write(name, "what was there before");
        const std::vector<std::string> before = files();
        const SProgramResult result =
            krv({"render", m_filter, at("in.wav"), at(name)}, {.fileSizeLimit = 10000});
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_THAT(result.err, HasSubstr(name + "' cannot be written: File too large"));
        EXPECT_THAT(files(), testing::UnorderedElementsAreArray(before));
        EXPECT_EQ(std::filesystem::file_size(at(name)), 21U);
    }
}

TEST_F(RenderRefuses, ToGoOnWhenInterrupted)
{
    // A gigabyte of silence that takes up no room on the disk.
    constexpr std::uint32_t kBytes = 1U << 30;
    writeAudio(at("long.wav"), {SF_FORMAT_WAV | SF_FORMAT_PCM_16, 48000, 2, {0.0, 0.0}});
    std::fstream header(at("long.wav"), std::ios::in | std::ios::out | std::ios::binary);
    const auto writeLength = [&](std::streamoff at, std::uint32_t length) {
        header.seekp(at);
        header.write(reinterpret_cast<const char*>(&length), sizeof length);
    };
    writeLength(4, kBytes + 36);
    writeLength(40, kBytes);
    header.close();
    std::filesystem::resize_file(at("long.wav"), kBytes + std::uintmax_t{44});

    const std::vector<std::string> before = files();
    // As nohup starts it: what is ignored stays ignored.
    CProgram program({"/bin/sh", "-c", R"(trap '' HUP; exec "$0" "$@")", KRV_PROGRAM, "render", m_filter,
                      at("long.wav"), at("out.wav"), "--block", "16"});
    waitForOutput(program, before);
    kill(program.process(), SIGHUP);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_TRUE(program.isRunning());
    kill(program.process(), SIGTERM);
    const SProgramResult result = program.finish();
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_THAT(result.err, HasSubstr("interrupted"));
    EXPECT_THAT(files(), testing::UnorderedElementsAreArray(before));

    // Some tools send their signal twice, and the second one kills.
    CProgram killed({KRV_PROGRAM, "render", m_filter, at("long.wav"), at("out.wav")});
    waitForOutput(killed, before);
    while (killed.isRunning())
    {
        kill(killed.process(), SIGINT);
        std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
    EXPECT_THAT(files(), testing::UnorderedElementsAreArray(before));
}

TEST_F(RenderRefuses, NothingOfWhatAPipeLeavesOpen)
{
    // Writers to a pipe cannot go back to put the length in.
    std::fstream header(at("in.wav"), std::ios::in | std::ios::out | std::ios::binary);
    const std::uint32_t unknown = 0xFFFFFFFF;
    for (const std::streamoff place : {4, 40})
    {
        header.seekp(place);
        header.write(reinterpret_cast<const char*>(&unknown), sizeof unknown);
    }
    header.close();
    render({m_filter, at("in.wav"), at("out.wav")});
    EXPECT_EQ(readAudio(at("out.wav")).frames(), 20000U);
}

} // namespace
