// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <xmmintrin.h>

#include <bit>
#include <cmath>
#include <cstdint>

/// Multiplication of and to denormals without what it costs: processors leave it to microcode, at a hundred
/// cycles and more an instruction, while they add, compare and copy denormals at full speed. Results stay
/// those of single-precision arithmetic, to the bit; the processor's modes are left as the host has them.
///
/// Below 2^-125, single precision is fixed-point arithmetic: every number is a multiple of 2^-149. A product
/// in single precision is the exact product, which double precision holds, rounded to such a multiple.
namespace korvodsp {

/// Bits of the exponent of a float. All clear: the number is zero or denormal.
inline constexpr std::uint32_t kExponentBits = 0x7F800000;

/// Adding this to a double and taking it away again rounds a number of less than 2^51 to an integer.
inline constexpr double kToInteger = 6755399441055744.0; // 1.5 * 2^52

inline bool isZeroOrDenormal(float x)
{
    return (std::bit_cast<std::uint32_t>(x) & kExponentBits) == 0;
}

/// Whether the processor rounds to nearest and keeps denormals. In any other mode of the host's, ordinary
/// arithmetic has to give the results of that mode.
inline bool keepsDenormals()
{
    constexpr unsigned kDenormalsAreZero = 0x0040;
    return (_mm_getcsr() & (_MM_ROUND_MASK | _MM_FLUSH_ZERO_MASK | kDenormalsAreZero)) == _MM_ROUND_NEAREST;
}

/// a * x in single precision, at no extra cost where x is denormal; for use while keepsDenormals().
inline float timesMaybeDenormal(float a, float x)
{
    const auto bits = std::bit_cast<std::uint32_t>(x);
    const auto magnitude = static_cast<std::int32_t>(bits & 0x7FFFFFFF);
    const double product = std::fabs(static_cast<double>(a)) * magnitude; // in units of 2^-149
    if (!isZeroOrDenormal(x) || !(product < 0x1p24))
        return a * x;
    const auto rounded = static_cast<std::uint32_t>((product + kToInteger) - kToInteger);
    return std::bit_cast<float>(rounded | ((std::bit_cast<std::uint32_t>(a) ^ bits) & 0x80000000));
}

} // namespace korvodsp
