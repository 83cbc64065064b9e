// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <gmock/gmock.h>

#include <cmath>
#include <random>
#include <string>
#include <vector>

#include "tests/krv/audio_files.h"
#include "tests/support/random.h"
#include "tests/support/run_program.h"
#include "tests/support/temp_folder.h"

namespace korvotest {

/// A folder for the files of one test, and krv run in it.
class CRenderTest : public testing::Test
{
protected:
    std::string at(const std::string& name) const { return (m_folder.path() / name).string(); }

    std::string writeFilter(const std::string& name, int channels, const std::vector<SSetText>& sets) const
    {
        return m_folder.write(name, filterDocument(name, channels, sets)).string();
    }

    static SProgramResult krv(std::vector<std::string> arguments, const SProgramOptions& options = {})
    {
        arguments.insert(arguments.begin(), KRV_PROGRAM);
        return runProgram(arguments, options);
    }

    /// Renders and expects it to work.
    static std::string render(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), "render");
        const SProgramResult result = krv(arguments);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(result.err, "");
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

} // namespace korvotest
