// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/ring_dot.h"

#include <xmmintrin.h>

#include "dsp/kernel_variants.h"

namespace korvodsp {

void completeFirstBank(float* bank, std::size_t length, std::size_t ratio)
{
    if (length == 0)
        return;
    for (std::size_t i = 0; i < kRingRow; ++i)
        bank[2 * length + i] = bank[i % length];
    float* to = bank + spacedTapsStart(length);
    for (std::size_t first = 0; first < ratio; ++first)
        for (std::size_t i = 0; i < spacedTapsSize(length, ratio); ++i)
            *to++ = bank[(i * ratio + first) % length];
}

float ringDot(const float* bank, const float* samples, unsigned length)
{
    __m128 a[4] = {_mm_setzero_ps(), _mm_setzero_ps(), _mm_setzero_ps(), _mm_setzero_ps()};
    const unsigned unrolled = length & ~15U;
    for (unsigned j = 0; j < length; j += 4)
    {
        __m128& into = a[j < unrolled ? j / 4 % 4 : 0];
        into = _mm_add_ps(into, _mm_mul_ps(_mm_load_ps(bank + j), _mm_load_ps(samples + j)));
    }
    float lanes[4];
    _mm_storeu_ps(lanes, _mm_add_ps(_mm_add_ps(a[0], a[1]), _mm_add_ps(a[2], a[3])));
    return ((lanes[0] + lanes[1]) + lanes[2]) + lanes[3];
}

void ringFilter(SRing& ring, const float* const banks[4], SConstColumn in, SColumn out, unsigned frames,
                float scale)
{
    kernelVariant().ringFilter(ring, banks, in, out, frames, scale);
}

void ringDecimate(SRing& ring, const float* const banks[4], unsigned ratio, SConstColumn in, SColumn out,
                  unsigned frames)
{
    kernelVariant().ringDecimate(ring, banks, ratio, in, out, frames);
}

void ringInterpolate(SRing& ring, const float* const* banks, unsigned ratio, SConstColumn in, SColumn out,
                     unsigned frames, float scale)
{
    kernelVariant().ringInterpolate(ring, banks, ratio, in, out, frames, scale);
}

} // namespace korvodsp
