// SPDX-License-Identifier: GPL-3.0-or-later
/** @file
 *  Plain operations on buffers of float samples: fades, routing, gain, saturation, peak search and layout.
 *
 *  Where a function takes `channel` and `stride`, sample i of the channel lies at index i * stride + channel;
 * the other samples of the buffer are left alone. Frames hold one sample per channel; counts are samples.
 * Buffers need no alignment beyond that of a float. An input may be the same buffer as the output where the
 * function says so; any other overlap is outside the contract. No function fails, allocates, locks or keeps a
 * state; at a count of 0 none touches its buffers. */
#pragma once

#include "korvo_export.h"

namespace korvodsp {

// Fades. s(k) = 0.5 * cos(k * pi / frames) for k = 0 to frames - 1, by a two-term recurrence in single
// precision, equal to the bit in all fades of the library. The last frame is one step short of the end of the
// half period.

/// out = (0.5 - s) * to + (s + 0.5) * from: starts with `from` in full and moves to `to`. All three buffers
/// have the same layout; `out` may be `from` or `to`.
KORVO_EXPORT void FadeBuffers(const float* from, const float* to, float* out, unsigned frames,
                              unsigned channel, unsigned stride);

/// data *= s + 0.5: from 1 down to one step above 0.
KORVO_EXPORT void FadeOutBuffer(float* data, unsigned frames, unsigned channel, unsigned stride);

/// data *= 0.5 - s: from 0 up to one step below 1.
KORVO_EXPORT void FadeInBuffer(float* data, unsigned frames, unsigned channel, unsigned stride);

/// Mixes input channels into output channels: out(f, o) = sum of in(f, i) over the inputs i whose bit is set
/// in routing[o], added to 0 in rising order of i, unscaled.
/// @param in          frames [firstFrame, endFrame) of `inChannels` interleaved channels are read
/// @param out         frames [0, endFrame) of `outChannels` interleaved channels are written: those below
///                    `firstFrame` come out as zeros. Not `in`
/// @param inChannels  inputs from 32 on have no bit and are never mixed
/// @param routing     one mask per output channel; bit 0 is input channel 0. A mask of 0 gives silence
KORVO_EXPORT void RouteAndMix(const float* in, float* out, unsigned firstFrame, unsigned endFrame,
                              unsigned inChannels, unsigned outChannels, const unsigned* routing);

/// Multiplies frame f of every channel by a gain that starts at `startGain` and rises by
/// (endGain - startGain) / frames after each frame, accumulated in single precision: the last frame gets one
/// step less than `endGain`, so that ramps join without a step held twice. `out` may be `in`.
/// @param startGain, endGain linear
KORVO_EXPORT void ApplyGainRamp(float startGain, float endGain, const float* in, float* out, unsigned frames,
                                unsigned channels);

/// out[i] = gain * in[i]. `out` may be `in`; 16-byte aligned buffers are fastest.
/// @param gain linear
KORVO_EXPORT void ApplyGain(float gain, const float* in, float* out, unsigned count);

/// Soft clip. Magnitudes a up to `threshold` stay, those above become (threshold^2 - threshold) / a + 1,
/// which meets a at the threshold and tends to 1; the sign is restored. `out` may be `in`.
///
/// All samples but the last count % 4 go four at a time. There the divisor is a + 1e-20, and the bent value
/// is reached as a + (bent - a), exact to the rounding of a: a few bits for samples near full scale, nothing
/// useful from 2^24 on, and NaN for an infinity. The last samples go one at a time, without either.
/// @param threshold linear, 0 to 1
/// @return true if no magnitude lay above `threshold`. A NaN stays and does not count
KORVO_EXPORT bool Saturate(const float* in, float* out, unsigned count, float threshold);

/// Largest sample, and 0 if none is above 0: the search starts there. NaN samples are passed over, wherever
/// they are.
KORVO_EXPORT float MaxValue(const float* data, unsigned count);

/// Largest magnitude; 0 without samples. NaN samples are passed over, wherever they are.
KORVO_EXPORT float AbsMaxValue(const float* data, unsigned count);

/// True if AbsMaxValue() is at least `threshold`; false for a threshold of NaN.
KORVO_EXPORT bool AbsMax(const float* data, unsigned count, float threshold);

/// out[f * numChannels + c] = channels[c][f]. `out` is none of the channels.
KORVO_EXPORT void Interleave(const float* const* channels, float* out, unsigned frames, unsigned numChannels);

/// channels[c][f] = in[f * numChannels + c]. `in` is none of the channels.
KORVO_EXPORT void Deinterleave(const float* in, float** channels, unsigned frames, unsigned numChannels);

} // namespace korvodsp
