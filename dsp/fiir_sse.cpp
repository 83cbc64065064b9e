// SPDX-License-Identifier: GPL-3.0-or-later
#include <emmintrin.h>

#include <cstddef>

#include "dsp/fiir_filter.h"
#include "dsp/fiir_kernels.h"

namespace korvodsp {

namespace {

float sumOfLanes(__m128 v)
{
    float lanes[4];
    _mm_storeu_ps(lanes, v);
    return ((lanes[0] + lanes[1]) + lanes[2]) + lanes[3];
}

float firSum(const float* ring, const float* table, std::uint32_t length)
{
    __m128 a[4] = {_mm_setzero_ps(), _mm_setzero_ps(), _mm_setzero_ps(), _mm_setzero_ps()};
    const std::uint32_t unrolled = length & ~15U;
    for (std::uint32_t j = 0; j < length; j += 4) {
        __m128& into = a[j < unrolled ? j / 4 % 4 : 0];
        into = _mm_add_ps(into, _mm_mul_ps(_mm_load_ps(ring + j), _mm_load_ps(table + j)));
    }
    return sumOfLanes(_mm_add_ps(_mm_add_ps(a[0], a[1]), _mm_add_ps(a[2], a[3])));
}

float sectionSum(FIIR_FILTER_tag& filter, float delayed)
{
    const __m128 x = _mm_set1_ps(delayed);
    const __m128 previous = _mm_set1_ps(filter.prevInput);
    __m128 sum = _mm_setzero_ps();
    float* group = filter.cookedSections;
    for (std::uint32_t g = 0; g < filter.numCookedGroups; ++g, group += kFloatsPerGroup) {
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

} // namespace

void FIIR_SSE(void* handle, const float* in, float* out, unsigned frames, unsigned channel, unsigned stride)
{
    FIIR_FILTER_tag& filter = *static_cast<FIIR_FILTER_tag*>(handle);
    const std::uint32_t length = filter.paddedTaps;
    for (unsigned i = 0; i < frames; ++i) {
        const std::size_t at = std::size_t{i} * stride + channel;
        const std::uint32_t position = filter.delayPos;
        const float delayed = filter.delayLine[(length + position - filter.tapPadding) % length];
        filter.delayLine[position] = in[at];
        const std::uint32_t offset = (length - (position & ~3U)) % length;
        float y = firSum(filter.delayLine, filter.firCoefs[position & 3] + offset, length);
        filter.delayPos = position == 0 ? length - 1 : position - 1;
        if (filter.numCookedGroups != 0)
            y = sectionSum(filter, delayed) + y;
        out[at] = y;
    }
    filter.denormalBias = -filter.denormalBias;
}

} // namespace korvodsp
