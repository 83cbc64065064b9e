// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/channel_delay.h"

#include <algorithm>
#include <bit>

#include "dsp/aligned_memory.h"
#include "dsp/denormals.h"

namespace korvodsp {

namespace {

/// Whether a block is likely to be what filters leave of silence: denormals. A wrong guess costs time only.
inline bool looksSilent(const float* src, std::uint32_t frames)
{
    return frames != 0 && isZeroOrDenormal(src[0]) && keepsDenormals();
}

/// The same products as for any block.
void gainSilence(const float* src, std::size_t srcStride, float* dst, std::size_t dstStride,
                 std::size_t frames, float gain) noexcept
{
    std::size_t k = 0;
    for (; keepsUnits(gain) && k + 4 <= frames; k += 4)
    {
        const float* const four = src + k * srcStride;
        const __m128 samples =
            _mm_setr_ps(four[0], four[srcStride], four[2 * srcStride], four[3 * srcStride]);
        if (!areZeroOrDenormal(samples))
            break;
        float products[4];
        _mm_storeu_ps(products, timesDenormals(gain, samples));
        for (std::size_t i = 0; i < 4; ++i)
            dst[(k + i) * dstStride] = products[i];
    }
    for (; k < frames; ++k)
        dst[k * dstStride] = timesMaybeDenormal(gain, src[k * srcStride]);
}

/// The work of both public loops; `src` and `dst` have strides of their own. Returns the ramp after the last
/// frame.
inline SGainRamp rampSamples(const float* src, std::size_t srcStride, float* dst, std::size_t dstStride,
                             std::uint32_t frames, SGainRamp ramp) noexcept
{
    // Adding a step of zero changes no gain but -0.0, so the usual block needs no chain of additions.
    if (ramp.step == 0.0F && ramp.gain != 0.0F)
    {
        if (looksSilent(src, frames))
        {
            gainSilence(src, srcStride, dst, dstStride, frames, ramp.gain);
            return ramp;
        }
        for (std::size_t k = 0; k < frames; ++k)
            dst[k * dstStride] = ramp.gain * src[k * srcStride];
        return ramp;
    }
    for (std::size_t k = 0; k < frames; ++k)
    {
        dst[k * dstStride] = ramp.gain * src[k * srcStride];
        ramp.gain += ramp.step;
    }
    return ramp;
}

} // namespace

std::uint32_t delayRingBytes(std::uint32_t maxDelaySamples) noexcept
{
    if (maxDelaySamples == 0)
        return 0;
    // Above the limit, and not just up to it: a full ring's longest delay would find the sample just written.
    const std::uint64_t bytes = std::bit_ceil(std::uint64_t{maxDelaySamples} + 1) * sizeof(float);
    return bytes < kMemoryLimit ? static_cast<std::uint32_t>(bytes) : 0;
}

std::uint32_t delayInSamples(float delayMs, float samplesPerMs, std::uint32_t maxDelaySamples) noexcept
{
    constexpr float kFirstBeyondRange = 4294967296.0F;
    const float samples = delayMs * samplesPerMs + 0.5F;
    if (!(samples > 0.0F))
        return 0;
    if (samples >= kFirstBeyondRange)
        return maxDelaySamples;
    return std::min(static_cast<std::uint32_t>(samples), maxDelaySamples);
}

void copyColumn(const float* src, std::size_t srcStride, float* dst, std::size_t dstStride,
                std::size_t frames) noexcept
{
    if (srcStride == 1 && dstStride == 1)
    {
        std::copy_n(src, frames, dst);
        return;
    }
    for (std::size_t k = 0; k < frames; ++k)
        dst[k * dstStride] = src[k * srcStride];
}

void rampColumn(const float* src, std::size_t srcStride, float* dst, std::size_t dstStride,
                std::uint32_t frames, SGainRamp ramp) noexcept
{
    rampSamples(src, srcStride, dst, dstStride, frames, ramp);
}

std::uint32_t delayColumn(SDelayRing ring, std::uint32_t delay, const float* src, std::size_t srcStride,
                          float* dst, std::size_t dstStride, std::uint32_t frames, SGainRamp ramp) noexcept
{
    const std::uint32_t size = ring.mask + 1;
    while (frames > 0)
    {
        // Runs that cross the ring's end neither in writing nor in reading, so that no sample needs the mask.
        // A run is written whole before it is read, hence the last limit: one frame more and its newest
        // sample would take the place of the oldest that is yet to be read.
        const std::uint32_t write = ring.writeIndex & ring.mask;
        const std::uint32_t read = (ring.writeIndex - delay) & ring.mask;
        const std::uint32_t run = std::min({frames, size - write, size - read, size - delay});
        copyColumn(src, srcStride, ring.samples + write, 1, run);
        ramp = rampSamples(ring.samples + read, 1, dst, dstStride, run, ramp);
        src += run * srcStride;
        dst += run * dstStride;
        ring.writeIndex += run;
        frames -= run;
    }
    return ring.writeIndex;
}

} // namespace korvodsp
