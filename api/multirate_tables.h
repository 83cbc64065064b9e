// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace korvo {

/// Low-pass and high-pass table of one ratio. The lengths cut the stored low-pass tables, which are longer.
struct SResamplingFilter
{
    const float* lowPass;
    int32_t lowPassLength;
    const float* highPass;
    int32_t highPassLength;
};

/// Row 0 serves ratio 2 (176400 and 192000 Hz), row 1 ratio 4 (352800 and 384000 Hz).
extern const std::array<SResamplingFilter, 2> resamplingFilters;

/// Stored floats of each table.
constexpr std::size_t kLowPass2Size = 43;
constexpr std::size_t kLowPass4Size = 85;
constexpr std::size_t kHighPass2Size = 82;
constexpr std::size_t kHighPass4Size = 162;

} // namespace korvo
