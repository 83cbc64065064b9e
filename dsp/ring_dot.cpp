// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/ring_dot.h"

#include <xmmintrin.h>

#include <cstddef>

namespace korvodsp {

namespace {

float dotAt(const SRing& ring, const float* const banks[4])
{
    const auto at = static_cast<unsigned>(ring.index);
    const unsigned offset = (ring.length - (at & ~3U)) % ring.length;
    return ringDot(banks[at & 3] + offset, ring.samples, ring.length);
}

void stepDown(SRing& ring)
{
    ring.index = ring.index == 0 ? static_cast<int>(ring.length) - 1 : ring.index - 1;
}

} // namespace

float ringDot(const float* bank, const float* samples, unsigned length)
{
    __m128 a[4] = {_mm_setzero_ps(), _mm_setzero_ps(), _mm_setzero_ps(), _mm_setzero_ps()};
    const unsigned unrolled = length & ~15U;
    for (unsigned j = 0; j < length; j += 4) {
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
    for (std::size_t i = 0; i < frames; ++i) {
        ring.samples[ring.index] = in.samples[i * in.stride];
        out.samples[i * out.stride] = dotAt(ring, banks) * scale;
        stepDown(ring);
    }
}

void ringDecimate(SRing& ring, const float* const banks[4], unsigned ratio, SConstColumn in, SColumn out,
                  unsigned frames)
{
    for (std::size_t i = 0; i < frames; ++i) {
        ring.samples[ring.index] = in.samples[i * in.stride];
        if ((i + 1) % ratio == 0)
            out.samples[i / ratio * out.stride] = dotAt(ring, banks);
        stepDown(ring);
    }
}

void ringInterpolate(SRing& ring, const float* const* banks, unsigned ratio, SConstColumn in, SColumn out,
                     unsigned frames, float scale)
{
    for (std::size_t f = 0; f < frames; ++f) {
        const std::size_t phase = f % ratio;
        if (phase == 0) {
            ring.samples[ring.index] = in.samples[f / ratio * in.stride];
            stepDown(ring);
        }
        out.samples[f * out.stride] = dotAt(ring, banks + 4 * phase) * scale;
    }
}

} // namespace korvodsp
