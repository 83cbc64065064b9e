// SPDX-License-Identifier: GPL-3.0-or-later
#include <cstddef>
#include <cstdint>
#include <span>

#include <immintrin.h>

// From here on, and not for the whole file: inline functions of the standard headers are shared with files
// for lesser processors.
#pragma GCC target("avx2,fma")

#include "dsp/sample_conversion-inl.h"

namespace korvodsp {

namespace {

struct SAvx2Vectors
{
    using floats_t = __m256;
    using ints_t = __m256i;
    static constexpr std::size_t kLanes = 8;
    static constexpr std::size_t kInt24Vectors = 2; // longer blocks gain nothing
    static constexpr const SBlockConversions* kLesser = &kSse2Conversions;

    static floats_t set1(float x) { return _mm256_set1_ps(x); }
    static ints_t set1(int x) { return _mm256_set1_epi32(x); }
    static floats_t asFloats(ints_t v) { return _mm256_castsi256_ps(v); }
    static ints_t asInts(floats_t v) { return _mm256_castps_si256(v); }

    static ints_t load(const byte_t* src)
    {
        return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src));
    }
    static void store(byte_t* dst, ints_t v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(dst), v); }
    static void storeHalf(byte_t* dst, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(dst), v); }
    static __m128i loadHalf(const byte_t* src)
    {
        return _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
    }

    static ints_t loadInt16(const byte_t* src)
    {
        return _mm256_slli_epi32(_mm256_cvtepu16_epi32(loadHalf(src)), 16);
    }

    static ints_t loadInt24(const byte_t* src)
    {
        // The upper load starts at byte 8 and not at the upper samples' byte 12, to end with the block.
        const __m256i packed = _mm256_set_m128i(loadHalf(src + 8), loadHalf(src));
        const __m256i toTop = _mm256_setr_epi8(-1, 0, 1, 2, -1, 3, 4, 5, -1, 6, 7, 8, -1, 9, 10, 11, //
                                               -1, 4, 5, 6, -1, 7, 8, 9, -1, 10, 11, 12, -1, 13, 14, 15);
        return _mm256_shuffle_epi8(packed, toTop);
    }

    static floats_t toFloat(ints_t v) { return _mm256_cvtepi32_ps(v); }
    static floats_t scaled(floats_t x, floats_t scale)
    {
        return _mm256_fmadd_ps(x, scale, _mm256_set1_ps(0.5F));
    }
    // Minimum and maximum give their second operand where a comparison with NaN fails.
    static floats_t clamp(floats_t v, floats_t low, floats_t high)
    {
        return _mm256_max_ps(low, _mm256_min_ps(high, v));
    }
    static ints_t orChanged(ints_t a, ints_t v, ints_t w)
    {
        return _mm256_or_si256(a, _mm256_xor_si256(v, w));
    }
    static ints_t toInt(floats_t v) { return _mm256_cvtps_epi32(v); }

    static void storeInt16(byte_t* dst, ints_t v, ints_t w)
    {
        const __m256i halvesInterleaved = _mm256_packs_epi32(v, w);
        store(dst, _mm256_permute4x64_epi64(halvesInterleaved, 0xD8));
    }

    static void storeInt24(byte_t* dst, const ints_t (&v)[kInt24Vectors])
    {
        const __m256i upperBytes =
            _mm256_setr_epi8(1, 2, 3, 5, 6, 7, 9, 10, 11, 13, 14, 15, -1, -1, -1, -1, //
                             1, 2, 3, 5, 6, 7, 9, 10, 11, 13, 14, 15, -1, -1, -1, -1);
        const __m256i first = _mm256_shuffle_epi8(v[0], upperBytes);
        const __m256i second = _mm256_shuffle_epi8(v[1], upperBytes);
        // The four bytes behind each half's twelve are overwritten by the next store. The last starts four
        // bytes early instead, to end with the block.
        const __m256i last = _mm256_permutevar8x32_epi32(second, _mm256_setr_epi32(0, 1, 2, 4, 2, 4, 5, 6));
        storeHalf(dst, _mm256_castsi256_si128(first));
        storeHalf(dst + 12, _mm256_extracti128_si256(first, 1));
        storeHalf(dst + 24, _mm256_castsi256_si128(last));
        storeHalf(dst + 32, _mm256_extracti128_si256(last, 1));
    }

    static bool anyBit(ints_t v) { return _mm256_testz_si256(v, v) == 0; }
};

} // namespace

constinit const SBlockConversions kAvx2Conversions = conversionsBy<SAvx2Vectors>("avx2");

} // namespace korvodsp
