// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <gmock/gmock.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "tests/krv/audio_files.h"
#include "tests/support/document_builder.h"
#include "tests/support/random.h"
#include "tests/support/run_program.h"
#include "tests/support/temp_folder.h"

namespace korvotest {

/// A folder for the files of one test, and krv run in it with that folder as its home.
class CKrvTest : public testing::Test
{
protected:
    std::string at(const std::string& name) const { return (m_folder.path() / name).string(); }

    /// Channels that all have the given sets; the filter is named as its file.
    void writeFilter(const std::string& file, unsigned channels, const std::vector<SSet>& sets) const
    {
        m_folder.write(file, documentText(sameChannels(channels, sets), file));
    }

    void write(const std::string& file, const SAudio& audio) const { writeAudio(at(file), audio); }
    SAudio read(const std::string& file) const { return readAudio(at(file)); }

    /// What runs krv with the rest of a command line, a shell that first does what stands in `before`.
    std::vector<std::string> command(const std::string& line, const std::string& before = ":") const
    {
        return {"/bin/sh", "-c", R"(cd "$1"; export HOME="$1"; )" + before + R"(; exec "$0" )" + line,
                KRV_PROGRAM, m_folder.path()};
    }

    SProgramResult krv(const std::string& line) const { return runProgram(command(line)); }

    /// What krv prints, which is expected to do as it is told.
    std::string done(const std::string& line) const
    {
        const SProgramResult result = krv(line);
        EXPECT_EQ(result.exitCode, 0) << line;
        EXPECT_EQ(result.err, "") << line;
        return result.out;
    }

    /// Noise whose every sample is a whole number of steps of `bits` bits, and does not come near full scale.
    SAudio noise(int format, int rate, int channels, std::size_t frames, int bits)
    {
        SAudio audio{format, rate, channels, {}};
        const double steps = std::ldexp(1.0, bits - 1);
        for (const float sample : makeNoise(m_random, frames * static_cast<std::size_t>(channels), 0.9F))
            audio.samples.push_back(std::round(static_cast<double>(sample) * steps) / steps);
        return audio;
    }

    /// Names of all files in the folder.
    std::vector<std::string> files() const
    {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_folder.path()))
            names.push_back(entry.path().filename());
        return names;
    }

    CTempFolder m_folder;
    std::mt19937 m_random = makeRandom(11);
};

/// `latency` zeros and then the value.
inline std::vector<float> delayedTap(std::size_t latency, float value = 1.0F)
{
    std::vector<float> taps(latency + 1);
    taps.back() = value;
    return taps;
}

} // namespace korvotest
