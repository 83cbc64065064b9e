// SPDX-License-Identifier: GPL-3.0-or-later
/** @file
 *  A stand-alone second-order section behind an opaque handle, for work on stored signals: measured responses
 * are smoothed without phase shift by one pass forward and one backward.
 *
 *  H(z) = (b0 + b1 z^-1 + b2 z^-2) / (1 + a1 z^-1 + a2 z^-2), in direct form II. The feedback coefficients
 * carry the sign of the denominator, so they are subtracted:
 *
 *      x(t) --(+)----------- w(t) ---[b0]---(+)--> y(t)
 *              |              |              |
 *              |            [z^-1]           |
 *              +----[-a1]--- w(t-1) --[b1]---+
 *              |              |              |
 *              |            [z^-1]           |
 *              +----[-a2]--- w(t-2) --[b2]---+
 *
 *  A handle points at eight floats: a1, a2, b0, b1, b2, z1 = w(t-1), z2 = w(t-2), denormalBias. Arguments
 * name b before a, the record a before b. Handles are trusted, not checked, and are used by one thread at a
 * time. Everything is in single precision. */
#pragma once

#include "korvo_export.h"

namespace korvodsp {

/// Makes a section that passes its input through (b0 = 1, all else 0).
/// @return false if memory is out, with *handle unchanged
KORVO_EXPORT bool BQ_Init(void** handle);

/// Makes a section with the given coefficients; a0 is 1.
/// @return false if memory is out, with *handle unchanged
KORVO_EXPORT bool BQ_Init(void** handle, float b0, float b1, float b2, float a1, float a2);

/// Stores the coefficients as they are; a0 is 1. The state stays.
KORVO_EXPORT void BQ_SetCoeffs(void* handle, float b0, float b1, float b2, float a1, float a2);

/// Stores each coefficient times 1 / a0. The state stays. An a0 of 0 is not screened: infinities and NaN
/// follow.
KORVO_EXPORT void BQ_SetCoeffsRaw(void* handle, float b0, float b1, float b2, float a0, float a1, float a2);

/// Forgets the signal: z1 = z2 = 0. Coefficients and the sign of the bias stay.
KORVO_EXPORT void BQ_Reset(void* handle);

/// Releases the section.
KORVO_EXPORT void BQ_Discard(void* handle);

/// Filters data[0] to data[count - 1] in place. Per sample, in this order of operations:
///   w = ((x - z1 * a1) - z2 * a2) + bias;  y = (z1 * b1 + z2 * b2) + w * b0;  z2 = z1;  z1 = w.
/// The bias is plus or minus 1e-20 and keeps a decaying state out of the denormals; its sign flips after each
/// call, also of `count` 0. The state carries over, so a long signal may come in pieces.
KORVO_EXPORT void BQ_Process(void* handle, float* data, unsigned count);

/// The same from data[count - 1] down to data[0]. BQ_Process(), BQ_Reset(), BQ_ProcessBackwards() on the same
/// data square the magnitude of the response and cancel its phase.
KORVO_EXPORT void BQ_ProcessBackwards(void* handle, float* data, unsigned count);

/// Low-pass of the Audio EQ Cookbook (R. Bristow-Johnson), second order, gain 1 at 0 Hz. The state stays.
/// @param sampleRate Hz
/// @param cutoff     Hz, between 0 and sampleRate / 2
/// @param q          above 0; 0.7071 is the flattest. 0 is not screened: infinities and NaN follow
KORVO_EXPORT void BQ_MakeLoPass(void* handle, float sampleRate, float cutoff, float q);

/// High-pass of the Audio EQ Cookbook, second order, gain 0 at 0 Hz and 1 at sampleRate / 2. Arguments and
/// state as with BQ_MakeLoPass().
KORVO_EXPORT void BQ_MakeHiPass(void* handle, float sampleRate, float cutoff, float q);

} // namespace korvodsp
