// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <emmintrin.h>

#include <cstddef>
#include <cstdint>

#include "dsp/fiir_filter.h"

/// The vector kernel in its plainest form: one sample at a time, four lanes, every load aligned. It defines
/// the result of every variant to the bit, and is the yardstick of the benchmarks.
namespace korvotest {

inline float sumOfLanes(__m128 v)
{
    const float l0 = _mm_cvtss_f32(v);
    const float l1 = _mm_cvtss_f32(_mm_shuffle_ps(v, v, 1));
    const float l2 = _mm_cvtss_f32(_mm_shuffle_ps(v, v, 2));
    const float l3 = _mm_cvtss_f32(_mm_shuffle_ps(v, v, 3));
    return ((l0 + l1) + l2) + l3;
}

/// ring[0 .. length) times table[0 .. length), both 16-byte aligned, length a multiple of 4.
inline float plainDot(const float* ring, const float* table, std::uint32_t length)
{
    _mm_prefetch(reinterpret_cast<const char*>(table), _MM_HINT_NTA);
    __m128 a0 = _mm_setzero_ps();
    __m128 a1 = _mm_setzero_ps();
    __m128 a2 = _mm_setzero_ps();
    __m128 a3 = _mm_setzero_ps();
    std::uint32_t j = 0;
    for (; j < (length & ~15U); j += 16)
    {
        a0 = _mm_add_ps(a0, _mm_mul_ps(_mm_load_ps(ring + j), _mm_load_ps(table + j)));
        a1 = _mm_add_ps(a1, _mm_mul_ps(_mm_load_ps(ring + j + 4), _mm_load_ps(table + j + 4)));
        a2 = _mm_add_ps(a2, _mm_mul_ps(_mm_load_ps(ring + j + 8), _mm_load_ps(table + j + 8)));
        a3 = _mm_add_ps(a3, _mm_mul_ps(_mm_load_ps(ring + j + 12), _mm_load_ps(table + j + 12)));
    }
    for (; j < length; j += 4)
        a0 = _mm_add_ps(a0, _mm_mul_ps(_mm_load_ps(ring + j), _mm_load_ps(table + j)));
    return sumOfLanes(_mm_add_ps(_mm_add_ps(a0, a1), _mm_add_ps(a2, a3)));
}

inline float plainSections(korvodsp::FIIR_FILTER_tag& filter, float delayed)
{
    const __m128 x = _mm_set1_ps(delayed);
    const __m128 previous = _mm_set1_ps(filter.prevInput);
    __m128 sum = _mm_setzero_ps();
    float* group = filter.cookedSections;
    for (std::uint32_t g = 0; g < filter.numCookedGroups; ++g, group += korvodsp::kFloatsPerGroup)
    {
        const __m128 y1 = _mm_load_ps(group + 16);
        const __m128 y2 = _mm_load_ps(group + 20);
        const __m128 forward =
            _mm_add_ps(_mm_mul_ps(_mm_load_ps(group), x), _mm_mul_ps(_mm_load_ps(group + 4), previous));
        const __m128 back =
            _mm_add_ps(_mm_mul_ps(_mm_load_ps(group + 8), y1), _mm_mul_ps(_mm_load_ps(group + 12), y2));
        const __m128 y = _mm_sub_ps(forward, back);
        _mm_store_ps(group + 20, y1);
        _mm_store_ps(group + 16, y);
        sum = _mm_add_ps(sum, y);
    }
    filter.prevInput = delayed;
    return sumOfLanes(sum);
}

inline void plainFiir(void* handle, const float* in, float* out, unsigned frames, unsigned channel,
                      unsigned stride)
{
    korvodsp::FIIR_FILTER_tag& filter = *static_cast<korvodsp::FIIR_FILTER_tag*>(handle);
    const std::uint32_t length = filter.paddedTaps;
    for (unsigned i = 0; i < frames; ++i)
    {
        const std::size_t at = std::size_t{i} * stride + channel;
        const std::uint32_t position = filter.delayPos;
        const float delayed = filter.delayLine[(length + position - filter.tapPadding) % length];
        filter.delayLine[position] = in[at];
        const std::uint32_t offset = (length - (position & ~3U)) % length;
        float y = plainDot(filter.delayLine, filter.firCoefs[position & 3] + offset, length);
        filter.delayPos = position == 0 ? length - 1 : position - 1;
        if (filter.numCookedGroups != 0)
            y = plainSections(filter, delayed) + y;
        out[at] = y;
    }
    filter.denormalBias = -filter.denormalBias;
}

} // namespace korvotest
