// SPDX-License-Identifier: GPL-3.0-or-later
#include <cstring>

#include <emmintrin.h>

#include "dsp/sample_conversion-inl.h"

namespace korvodsp {

namespace {

struct SSse2Vectors
{
    using floats_t = __m128;
    using ints_t = __m128i;
    static constexpr std::size_t kLanes = 4;
    static constexpr std::size_t kInt24Vectors = 1; // the shortest calls are shorter than four vectors

    static floats_t set1(float x) { return _mm_set1_ps(x); }
    static ints_t set1(int x) { return _mm_set1_epi32(x); }
    static floats_t asFloats(ints_t v) { return _mm_castsi128_ps(v); }
    static ints_t asInts(floats_t v) { return _mm_castps_si128(v); }

    static ints_t load(const byte_t* src) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(src)); }
    static void store(byte_t* dst, ints_t v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), v); }
    static ints_t loadHalf(const byte_t* src)
    {
        return _mm_loadl_epi64(reinterpret_cast<const __m128i*>(src));
    }

    static ints_t loadInt16(const byte_t* src)
    {
        return _mm_unpacklo_epi16(_mm_setzero_si128(), loadHalf(src));
    }

    static ints_t loadInt24(const byte_t* src)
    {
        // Two samples to each 64-bit half, then each to the top of its own 32-bit lane. The second load
        // starts two bytes early, to end with the block.
        const __m128i pairs = _mm_unpacklo_epi64(loadHalf(src), _mm_srli_epi64(loadHalf(src + 4), 16));
        const __m128i lower = _mm_set1_epi64x(0xFFFFFFFF);
        return _mm_or_si128(_mm_and_si128(lower, _mm_slli_epi64(pairs, 8)),
                            _mm_andnot_si128(lower, _mm_slli_epi64(pairs, 16)));
    }

    static floats_t toFloat(ints_t v) { return _mm_cvtepi32_ps(v); }
    static floats_t scaled(floats_t x, floats_t scale)
    {
        return _mm_add_ps(_mm_mul_ps(x, scale), _mm_set1_ps(0.5F));
    }
    // Minimum and maximum give their second operand where a comparison with NaN fails.
    static floats_t clamp(floats_t v, floats_t low, floats_t high)
    {
        return _mm_max_ps(low, _mm_min_ps(high, v));
    }
    static ints_t orChanged(ints_t a, ints_t v, ints_t w) { return _mm_or_si128(a, _mm_xor_si128(v, w)); }
    static ints_t toInt(floats_t v) { return _mm_cvtps_epi32(v); }

    static void storeInt16(byte_t* dst, ints_t v, ints_t w) { store(dst, _mm_packs_epi32(v, w)); }

    static void storeInt24(byte_t* dst, const ints_t (&v)[kInt24Vectors])
    {
        // The upper three bytes of both 32-bit lanes to the low six bytes of their half, then eight bytes
        // and four.
        const __m128i even = _mm_srli_epi64(_mm_slli_epi64(v[0], 32), 40);
        const __m128i odd = _mm_slli_epi64(_mm_srli_epi64(v[0], 40), 24);
        const __m128i lower = _mm_or_si128(even, odd);
        const __m128i upper = _mm_srli_si128(lower, 8);
        const __m128i first = _mm_or_si128(lower, _mm_slli_epi64(upper, 48));
        _mm_storel_epi64(reinterpret_cast<__m128i*>(dst), first);
        const int last = _mm_cvtsi128_si32(_mm_srli_epi64(upper, 16));
        std::memcpy(dst + 8, &last, sizeof last);
    }

    static bool anyBit(ints_t v)
    {
        return _mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_setzero_si128())) != 0xFFFF;
    }
};

} // namespace

constinit const SBlockConversions kSse2Conversions = conversionsBy<SSse2Vectors>("sse2");

} // namespace korvodsp
