// SPDX-License-Identifier: GPL-3.0-or-later
/// @file
/// The search behind estimateFilterDelayGain(), in two ways that give the same answer.
///
/// A candidate is a position from `first` to `last` with a sign. Its score is the sum of magnitudes over the
/// wide band of the filter with an impulse of that sign added there:
///
///     score(i, sign) = sum over bins k of | S(k) + sign * gain * exp(-2 pi j k i / 65536) |
///
/// By transforms, each sum has its own transform: 42 for the usual 21 positions. By spectrum, S is
/// transformed once and the impulse's spectrum added to it, a phasor that turns from bin to bin.
#pragma once

#include <bitset>
#include <optional>

#include "toolbox/fft_plan.h"

namespace korvotoolbox {

/// A range of bins, both edges included.
struct SBand
{
    int low;
    int high;
};

/// What both ways start from: a plan that has been executed on the filter, zero-padded.
struct SDelaySearch
{
    const CFftPlan& plan;
    float* samples;            ///< kFftSize values: the filter and zeros
    const fftwf_complex* bins; ///< kFftBins values: its spectrum
    int usedLength;            ///< samples that may differ from zero
    float gain;                ///< size of the impulse, not negative
    SBand wide;
    int first; ///< lowest position
    int last;  ///< highest position, at most 20 above the lowest
    int peak;  ///< the delay if no candidate scores above zero
};

struct SAlignment
{
    int delay;
    int sign; ///< +1 or -1; 0 if no candidate scores above zero
};

/// Positions counted from `first`.
constexpr int kMaxPositions = 21;
using Positions = std::bitset<kMaxPositions>;

/// Transforms the filter with an impulse of either sign at each of `contenders`; the other positions leave
/// their rounding residue in the samples and score nothing. With all positions set, this is the definition.
SAlignment searchByTransforms(const SDelaySearch& search, Positions contenders);

struct SSpectrumResult
{
    std::optional<SAlignment> clear; ///< nothing where rounding could decide
    Positions contenders;            ///< the positions that are left then
};

/// Leaves samples and bins as they are.
SSpectrumResult searchBySpectrum(const SDelaySearch& search);

} // namespace korvotoolbox
