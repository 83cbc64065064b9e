// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace korvodsp {

/// Integer samples of a host to float and back, full scale 1.0. `count` is in samples (frames times
/// channels). Samples are two's complement, little-endian and without gaps: 2 bytes for Int16, 4 for Int32, 3
/// (low byte first, the sign in the last) for Int24 and Int20. Pointers may have any alignment; source and
/// destination must not overlap, since a buffer's last block is converted again where the length is not a
/// multiple of it.
///
/// Every function has a scalar path, and a vector path that it takes from one block on (`count` and alignment
/// are told below). The two round differently, on purpose: which path a call takes is part of its result.
///
/// Real time: yes. Values that are out of range or NaN are clamped; nothing fails.

// To float: value * 2^-(bits - 1). True if all samples are zero, which 0 samples are.
//
//   Int16   vector path: count >= 8 and dst on a 4-byte boundary
//   Int32   vector path: count >= 4 and dst on a 4-byte boundary
//   Int24   vector path: count >= 6
//   Int20   as Int24. The vector path reads the top 20 bits of each 24-bit word, and judges silence by them;
//           the scalar path reads all 24.
bool NativeInt16ToFloat32_X86(const void* src, float* dst, unsigned count);
bool NativeInt20ToFloat32_X86(const void* src, float* dst, unsigned count);
bool NativeInt24ToFloat32_X86(const void* src, float* dst, unsigned count);
bool NativeInt32ToFloat32_X86(const void* src, float* dst, unsigned count);

// From float. True if a sample clipped, which only the vector path reports; false for 0 samples. NaN gives
// the most negative value and does not count as clipped.
//
// Vector path: v = x * 2^(bits - 1) + 0.5 in single precision, then floor(v), every step of it rounded toward
// negative infinity.
//
//   Int16   count >= 8 and dst on an even address. Clipped: v > 32767.0 or v < -32768.0.
//   Int32   count >= 4 and dst on a 4-byte boundary. v is clamped to -2^31 .. 2147483520, the largest float
//           below 2^31. Clipped: v outside that.
//   Int24   count >= 6 and src on a 4-byte boundary. As Int32, of which the upper three bytes are stored.
//   Int20   as Int24, with the top four bits of the 24-bit word cleared: not the mirror image of the reader.
//
// Scalar path, in double precision and truncated toward zero: Int32 x * 2^31 + 0.5; Int24 and Int20 the upper
// three bytes of that, all 24 bits; Int16 x * 2^31 + 32768, of which the upper half. It reaches the largest
// integer.
bool Float32ToNativeInt16_X86(const float* src, void* dst, unsigned count);
bool Float32ToNativeInt20_X86(const float* src, void* dst, unsigned count);
bool Float32ToNativeInt24_X86(const float* src, void* dst, unsigned count);
bool Float32ToNativeInt32_X86(const float* src, void* dst, unsigned count);

/// The three-byte reader. `mask` is applied to the sample in the top of a 32-bit word, in the vector path
/// only.
bool InternalNativeInt24ToFloat32_X86(const void* src, float* dst, unsigned count, unsigned long mask);

/// The three-byte writer. `mask` is applied to the sample in the low three bytes of a word, in the vector
/// path only.
bool InternalFloat32ToNativeInt24_X86(const float* src, void* dst, unsigned count, unsigned long mask);

} // namespace korvodsp
