// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>

#include "dsp/ring_dot.h"

namespace korvo {

/// One FIR of the multi-rate stage with the past of one channel's signal. `banks` and `delayLine` come from
/// krv_malloc(), 16-byte aligned; `coefs` is a constant table and not owned.
///
///   bank 4p + r    phase p of the taps, coefs[P * j + p] for j = 0 .. T-1, padded with zeros to L and
///                  rotated right by r places, twice in a row: 2L floats; P phases of T taps each. Behind
///                  them, bank 4p goes on as completeFirstBank() fills it
///   delayLine      a ring, of which the first L floats are used; written at falling positions
struct FIR_MULTIRATE_FILTER_tag
{
    int32_t length;        ///< taps in the table
    uint32_t paddedLength; ///< L, a multiple of 4; 0 while the filter is not prepared
    uint32_t ratio;        ///< stream rate to base rate, 2 or 4
    const float* coefs;
    float* banks[16];
    float* delayLine;
    int32_t delayIndex; ///< next write position, L - 1 down to 0
};

/// What prepareFIRcoefs() is told that a filter will do.
enum
{
    kHighPassKind = 0,
    kDecimatorKind = 1, ///< prepared like a high-pass
    kInterpolatorKind = 2
};

/// Builds banks and a cleared delay line for the `length`, `ratio` and `coefs` that are set; what there was
/// is released. `delayIndex` is the caller's. An interpolator takes length / 2 taps per phase whatever the
/// ratio, so at ratio 4 it reads coefs[0] to coefs[163], behind its own table.
/// @return false if memory is out; the filter is then empty, as after releaseFIRcoefs()
/// Real time: no.
bool prepareFIRcoefs(FIR_MULTIRATE_FILTER_tag* filter, int kind);

/// Releases delay line and banks, the filter staying usable for prepareFIRcoefs(). Nothing happens to an
/// empty filter.
void releaseFIRcoefs(FIR_MULTIRATE_FILTER_tag* filter);

/// The ring that the dot products of this filter run over.
inline korvodsp::SRing ringOf(const FIR_MULTIRATE_FILTER_tag& filter)
{
    return {filter.delayLine, filter.paddedLength, filter.delayIndex};
}

} // namespace korvo
