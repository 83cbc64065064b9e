// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

/// The three kernels of a filter. They realise the same filter; their outputs differ by rounding and by the
/// bias that the scalar ones add to their recursion. Each flips the sign of denormalBias once per call.
namespace korvodsp {

/// One accumulator, taps in order over the padded length; sections in direct form II.
void FIIR_Ref(void* handle, const float* in, float* out, unsigned frames, unsigned channel, unsigned stride);

/// One accumulator, ring in the other direction with n + 1 slots; sections in direct form I.
void FIIR_KorvoBaseReference(void* handle, const float* in, float* out, unsigned frames, unsigned channel,
                             unsigned stride);

} // namespace korvodsp
