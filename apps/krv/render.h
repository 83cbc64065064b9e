// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "apps/krv/sample_format.h"
#include "apps/krv/stream_rate.h"
#include "apps/krv/time_statistics.h"

namespace krv {

/// What `krv render` is asked for.
struct SRenderRequest
{
    std::string filter;
    std::string input;
    std::string output;
    std::uint32_t mode = 1;
    std::uint32_t blockFrames = 1024;
    double gainDb = 0.0; ///< not above 0
    bool align = false;
    bool quiet = false;
    std::optional<ESampleFormat> format; ///< none: the input's own
};

/// What it did.
struct SRenderReport
{
    std::string filterName;
    std::uint64_t frames = 0;
    std::uint32_t channels = 0;
    std::uint32_t filterChannels = 0; ///< 0 where the document does not number its channels
    ESampleFormat inputFormat = ESampleFormat::Float;
    ESampleFormat outputFormat = ESampleFormat::Float;
    SStreamRate stream;
    std::uint32_t blockFrames = 0;
    std::uint64_t blocks = 0;
    std::uint64_t clippedBlocks = 0;
    std::optional<std::uint64_t> latencyFrames; ///< of the filter; none while unknown
    CTimeStatistics blockTimes;
};

/// Corrects a file. Throws CCommandError, and then leaves no output behind.
SRenderReport render(const SRenderRequest& request);

} // namespace krv
