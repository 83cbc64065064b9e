// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

/// The three kernels of a filter. They realise the same filter; their outputs differ by rounding and by the
/// bias that the scalar ones add to their recursion. Each flips the sign of denormalBias once per call.
namespace korvodsp {

/// Vector kernel. The FIR sum runs over the ring in the order of its slots, 16 at a time into four
/// accumulators of four lanes, the slots that are left over into the first, and ends in ((l0 + l1) + l2) + l3
/// of (a0 + a1) + (a2 + a3). The sections run four per vector in direct form I, without bias; their outputs
/// are added group by group, then lane by lane, and the FIR sum comes last. That order is kept to the bit by
/// every variant.
void FIIR_SSE(void* handle, const float* in, float* out, unsigned frames, unsigned channel, unsigned stride);

/// One accumulator, taps in order over the padded length; sections in direct form II.
void FIIR_Ref(void* handle, const float* in, float* out, unsigned frames, unsigned channel, unsigned stride);

/// One accumulator, ring in the other direction with n + 1 slots; sections in direct form I.
void FIIR_KorvoBaseReference(void* handle, const float* in, float* out, unsigned frames, unsigned channel,
                             unsigned stride);

} // namespace korvodsp
