// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <emmintrin.h>

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

/// Whether all four are zero or denormal.
inline bool areZeroOrDenormal(__m128 x)
{
    const __m128i exponents = _mm_and_si128(_mm_castps_si128(x), _mm_set1_epi32(kExponentBits));
    return _mm_movemask_epi8(_mm_cmpeq_epi32(exponents, _mm_setzero_si128())) == 0xFFFF;
}

/// Whether timesDenormals() can have this factor: the products stay below 2^24 units, which are floats' bits.
inline bool keepsUnits(float a)
{
    return std::fabs(a) <= 2.0F;
}

/// a * x in single precision, for x that areZeroOrDenormal(); for use while keepsDenormals().
inline __m128 timesDenormals(float a, __m128 x)
{
    const __m128d factor = _mm_set1_pd(std::fabs(static_cast<double>(a)));
    const __m128d toInteger = _mm_set1_pd(0x1p52); // whose bits end in those of an integer added to it
    const __m128i topWord = _mm_set1_epi32(0x43300000);
    const __m128i signBit = _mm_set1_epi32(INT32_MIN);
    const auto rounded = [&](__m128i biased) {
        const __m128d units = _mm_sub_pd(_mm_castsi128_pd(biased), toInteger);
        return _mm_castpd_ps(_mm_add_pd(_mm_mul_pd(units, factor), toInteger));
    };
    const __m128i bits = _mm_castps_si128(x);
    const __m128i magnitude = _mm_andnot_si128(signBit, bits);
    const __m128 lower = rounded(_mm_unpacklo_epi32(magnitude, topWord));
    const __m128 upper = rounded(_mm_unpackhi_epi32(magnitude, topWord));
    const __m128i products = _mm_castps_si128(_mm_shuffle_ps(lower, upper, _MM_SHUFFLE(2, 0, 2, 0)));
    const __m128i signs = _mm_xor_si128(bits, _mm_castps_si128(_mm_set1_ps(a)));
    return _mm_castsi128_ps(_mm_or_si128(products, _mm_and_si128(signs, signBit)));
}

} // namespace korvodsp
