// SPDX-License-Identifier: GPL-3.0-or-later
// Stands in for the library's choice of kernels: plain loops, one sample at a time.
#include <cstddef>

#include "dsp/kernel_variants.h"
#include "tests/support/plain_fiir.h"

namespace korvodsp {

namespace {

float dotAt(const SRing& ring, const float* const banks[4])
{
    const auto position = static_cast<unsigned>(ring.index);
    const float* const bank = banks[position & 3] + (ring.length - (position & ~3U)) % ring.length;
    return korvotest::plainDot(bank, ring.samples, ring.length);
}

void step(SRing& ring)
{
    ring.index = ring.index == 0 ? static_cast<int>(ring.length) - 1 : ring.index - 1;
}

void filter(SRing& ring, const float* const banks[4], SConstColumn in, SColumn out, unsigned frames,
            float scale)
{
    for (std::size_t i = 0; i < frames; ++i)
    {
        ring.samples[ring.index] = in.samples[i * in.stride];
        out.samples[i * out.stride] = dotAt(ring, banks) * scale;
        step(ring);
    }
}

void decimate(SRing& ring, const float* const banks[4], unsigned ratio, SConstColumn in, SColumn out,
              unsigned frames)
{
    float* next = out.samples;
    for (std::size_t i = 0; i < frames; ++i)
    {
        ring.samples[ring.index] = in.samples[i * in.stride];
        if (i % ratio == ratio - 1)
        {
            *next = dotAt(ring, banks);
            next += out.stride;
        }
        step(ring);
    }
}

void interpolate(SRing& ring, const float* const* banks, unsigned ratio, SConstColumn in, SColumn out,
                 unsigned frames, float scale)
{
    const float* next = in.samples;
    for (std::size_t i = 0; i < frames; ++i)
    {
        const std::size_t phase = i % ratio;
        if (phase == 0)
        {
            ring.samples[ring.index] = *next;
            next += in.stride;
            step(ring);
        }
        out.samples[i * out.stride] = dotAt(ring, banks + 4 * phase) * scale;
    }
}

constexpr SKernelVariant kPlain = {"plain", korvotest::plainFiir, filter, decimate, interpolate};

} // namespace

std::span<const SKernelVariant> kernelVariants()
{
    return {&kPlain, 1};
}

const SKernelVariant& kernelVariant()
{
    return kPlain;
}

} // namespace korvodsp
