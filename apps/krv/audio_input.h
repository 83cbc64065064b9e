// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <sndfile.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "apps/krv/sample_format.h"

namespace krv {

struct SSndfileCloser
{
    void operator()(SNDFILE* file) const { sf_close(file); }
};
using SndfilePointer = std::unique_ptr<SNDFILE, SSndfileCloser>;

/// An audio file that is read from its start to its end in blocks. Anything that libsndfile reads.
class CAudioInput
{
public:
    /// Opens `path`, or throws CCommandError: not there, not audio, no frames, too many channels, cut short.
    explicit CAudioInput(const std::string& path);

    const std::string& path() const { return m_path; }
    std::uint32_t rate() const { return static_cast<std::uint32_t>(m_info.samplerate); }
    std::uint32_t channels() const { return static_cast<std::uint32_t>(m_info.channels); }
    std::uint64_t frames() const { return static_cast<std::uint64_t>(m_info.frames); }
    /// libsndfile's numbers, for what OUT takes over.
    int subtype() const { return m_info.format & SF_FORMAT_SUBMASK; }
    SNDFILE* sndfile() const { return m_file.get(); }

    /// The format in which the file's samples reach the processor unchanged.
    ESampleFormat format() const { return m_format; }
    /// Has read() deliver floats, scaled by `gain`.
    void readScaledFloats(float gain);

    /// Fills `block` with `frames` frames in format(), zeros behind the file's last frame.
    void read(void* block, std::size_t frames);

private:
    std::size_t readSamples(void* block, std::size_t frames);

    std::string m_path;
    SF_INFO m_info{};
    SndfilePointer m_file;
    ESampleFormat m_format = ESampleFormat::Float;
    float m_gain = 1.0F;
    std::uint64_t m_framesRead = 0;
    std::vector<int> m_words; ///< 24-bit samples on their way, left-justified
};

} // namespace krv
