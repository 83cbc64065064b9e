// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace krv {

/// A measured impulse response of one or more channels, read from an audio file.
struct SImpulseFile
{
    std::uint32_t rate = 0;
    int frames = 0;
    std::vector<std::vector<float>> channels;
};

/// Reads `path` whole, or throws CCommandError: what CAudioInput refuses, a rate that the analysis does not
/// take, too many frames, samples that are no numbers.
SImpulseFile readImpulseFile(const std::string& path);

enum class EImpulseEdit
{
    None,
    Trim,         ///< cut by the two-threshold rule
    TrimFiltered, ///< cut by the level rule on a band-limited copy
    Shift         ///< moved by the level rule, length kept
};

struct SImpulseRequest
{
    std::string input;
    std::string output;
    EImpulseEdit edit = EImpulseEdit::None;
    float level = 0.05F; ///< of the peak
    float margin = 2.0F; ///< ms
};

/// Frames that an edit takes off the front. All channels lose as many as the one that starts first, so that
/// they stay in time with each other; a silent channel has no start and no say. Throws CCommandError if all
/// are silent.
int framesToRemove(const SImpulseFile& file, const SImpulseRequest& request);

/// Writes the frames of request.input from `removed` on to request.output; for a shift, with silence at the
/// end. Integers of 16, 24 and 32 bits and 32-bit floats keep their format and so every bit; all else, 64-bit
/// floats among it, comes out as 32-bit floats. OUT appears when it is complete, or not at all.
void writeEdited(const SImpulseRequest& request, int removed);

} // namespace krv
