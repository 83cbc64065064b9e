// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <sndfile.h>

#include <cstdint>
#include <string>
#include <vector>

#include "apps/krv/audio_input.h"
#include "apps/krv/sample_format.h"

namespace krv {

/// What an output file holds. Checked by checkOutput() before any work is done.
struct SOutputForm
{
    std::string path; ///< its ending names the container: .wav, .flac, .aif, .aiff, .w64
    ESampleFormat format = ESampleFormat::Float;
    std::uint32_t rate = 0;
    std::uint32_t channels = 0;
    std::uint64_t frames = 0;
};

/// Throws CCommandError for a name whose ending is none of the above.
void checkOutputName(const std::string& path);

/// Throws CCommandError if such a file cannot be: a container without that sample format, more than a WAV
/// file can hold, a folder or device where the file should be.
void checkOutput(const SOutputForm& form);

/// Throws CCommandError if both names lead to one file.
void requireTwoFiles(const std::string& input, const std::string& output);

/// An audio file that appears under its name when it is complete, and not at all otherwise: it grows under
/// another name beside it.
class CAudioOutput
{
public:
    /// Takes title, artist and the like and the channel map over from `input`.
    CAudioOutput(const SOutputForm& form, const CAudioInput& input);
    ~CAudioOutput();
    CAudioOutput(const CAudioOutput&) = delete;
    CAudioOutput& operator=(const CAudioOutput&) = delete;

    /// Writes interleaved samples in the form's sample format.
    void write(const void* block, std::size_t frames);

    /// Completes the file and gives it its name.
    void finish();

private:
    static SF_VIRTUAL_IO virtualFile();
    [[noreturn]] void throwNotWritten() const;
    void removeUnfinished();
    void copyDescription(const CAudioInput& input);

    SOutputForm m_form;
    std::string m_target; ///< where the name leads to, links followed
    std::string m_growing;
    int m_descriptor = -1;
    int m_error = 0; ///< errno of the first write that failed, also those that libsndfile makes at the end
    SndfilePointer m_file;
    std::vector<int> m_words; ///< 24-bit samples on their way, left-justified
};

} // namespace krv
