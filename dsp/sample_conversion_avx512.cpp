// SPDX-License-Identifier: GPL-3.0-or-later
#include <cstddef>
#include <cstdint>
#include <span>

// The compiler's own header leaves on purpose what no lane is taken from uninitialised, and GCC 12 warns of
// it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <immintrin.h>
#pragma GCC diagnostic pop

// From here on, and not for the whole file: inline functions of the standard headers are shared with files
// for lesser processors.
#pragma GCC target("avx512f,avx512bw,avx512vbmi")

#include "dsp/sample_conversion-inl.h"

namespace korvodsp {

namespace {

struct SByteOrder
{
    alignas(64) byte_t from[64];
};

/// Which byte of 16 packed samples goes to which byte of the lanes; the lowest of a lane may be any.
constexpr SByteOrder toTop()
{
    SByteOrder order{};
    for (int i = 0; i < 64; ++i)
        order.from[i] = static_cast<byte_t>(i % 4 == 0 ? 0 : i / 4 * 3 + i % 4 - 1);
    return order;
}

/// Which bytes of two neighbouring vectors make up the store with the given number: of each lane the upper
/// three. Bytes of the second vector count from 64.
constexpr SByteOrder upperBytes(int store)
{
    SByteOrder order{};
    for (int i = 0; i < 64; ++i)
    {
        const int packed = store * 64 + i;
        order.from[i] = static_cast<byte_t>(packed / 3 * 4 + packed % 3 + 1 - store * 64);
    }
    return order;
}

constexpr SByteOrder kToTop = toTop();
constexpr SByteOrder kUpperBytes[3] = {upperBytes(0), upperBytes(1), upperBytes(2)};

struct SAvx512Vectors
{
    using floats_t = __m512;
    using ints_t = __m512i;
    static constexpr std::size_t kLanes = 16;
    static constexpr std::size_t kInt24Vectors = 4; // 192 bytes, three whole stores
    static constexpr const SBlockConversions* kLesser = &kAvx2Conversions;

    static floats_t set1(float x) { return _mm512_set1_ps(x); }
    static ints_t set1(int x) { return _mm512_set1_epi32(x); }
    static floats_t asFloats(ints_t v) { return _mm512_castsi512_ps(v); }
    static ints_t asInts(floats_t v) { return _mm512_castps_si512(v); }

    static ints_t load(const byte_t* src) { return _mm512_loadu_si512(src); }
    static void store(byte_t* dst, ints_t v) { _mm512_storeu_si512(dst, v); }

    static ints_t loadInt16(const byte_t* src)
    {
        const __m256i samples = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(src));
        return _mm512_slli_epi32(_mm512_cvtepu16_epi32(samples), 16);
    }

    static ints_t loadInt24(const byte_t* src)
    {
        constexpr __mmask64 kFortyEightBytes = (1ULL << 48) - 1;
        return _mm512_permutexvar_epi8(load(kToTop.from), _mm512_maskz_loadu_epi8(kFortyEightBytes, src));
    }

    static floats_t toFloat(ints_t v) { return _mm512_cvtepi32_ps(v); }
    static floats_t scaled(floats_t x, floats_t scale)
    {
        return _mm512_fmadd_ps(x, scale, _mm512_set1_ps(0.5F));
    }
    // Minimum and maximum give their second operand where a comparison with NaN fails.
    static floats_t clamp(floats_t v, floats_t low, floats_t high)
    {
        return _mm512_max_ps(low, _mm512_min_ps(high, v));
    }
    static ints_t orChanged(ints_t a, ints_t v, ints_t w)
    {
        constexpr int kA = 0xF0, kV = 0xCC, kW = 0xAA; // the truth table's columns
        return _mm512_ternarylogic_epi32(a, v, w, kA | (kV ^ kW));
    }
    static ints_t toInt(floats_t v) { return _mm512_cvtps_epi32(v); }

    static void storeInt16(byte_t* dst, ints_t v, ints_t w)
    {
        const __m512i quartersInterleaved = _mm512_packs_epi32(v, w);
        store(dst, _mm512_permutexvar_epi64(_mm512_setr_epi64(0, 2, 4, 6, 1, 3, 5, 7), quartersInterleaved));
    }

    static void storeInt24(byte_t* dst, const ints_t (&v)[kInt24Vectors])
    {
        store(dst, _mm512_permutex2var_epi8(v[0], load(kUpperBytes[0].from), v[1]));
        store(dst + 64, _mm512_permutex2var_epi8(v[1], load(kUpperBytes[1].from), v[2]));
        store(dst + 128, _mm512_permutex2var_epi8(v[2], load(kUpperBytes[2].from), v[3]));
    }

    static bool anyBit(ints_t v) { return _mm512_test_epi32_mask(v, v) != 0; }
};

} // namespace

constinit const SBlockConversions kAvx512Conversions = conversionsBy<SAvx512Vectors>("avx512");

} // namespace korvodsp
