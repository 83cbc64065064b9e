// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstddef>
#include <cstdint>

namespace korvodsp {

/// Bytes of the ring that delays by up to `maxDelaySamples`: a power of two, always more than
/// `maxDelaySamples` floats. 0 where no ring is needed, and where none of that size can be had.
std::uint32_t delayRingBytes(std::uint32_t maxDelaySamples) noexcept;

/// delayMs * samplesPerMs in single precision, rounded to the nearest sample and held within 0 ..
/// maxDelaySamples. Takes any float: what is too long, infinity included, is the longest delay, and a NaN is
/// none.
std::uint32_t delayInSamples(float delayMs, float samplesPerMs, std::uint32_t maxDelaySamples) noexcept;

/// A gain that begins at `gain` and goes up by `step` after every frame, accumulated in single precision.
struct SGainRamp
{
    float gain;
    float step;
};

/// dst(k) = src(k), over samples that lie a stride apart.
void copyColumn(const float* src, std::size_t srcStride, float* dst, std::size_t dstStride,
                std::size_t frames) noexcept;

/// dst(k) = g(k) * src(k), over samples that lie a stride apart. `dst` may be `src` with the same stride, and
/// nothing between.
void rampColumn(const float* src, std::size_t srcStride, float* dst, std::size_t dstStride,
                std::uint32_t frames, SGainRamp ramp) noexcept;

/// A ring of mask + 1 floats, a power of two, with a write position that runs free: it is masked on use.
struct SDelayRing
{
    float* samples;
    std::uint32_t mask;
    std::uint32_t writeIndex;
};

/// dst(k) = g(k) * src(k - delay), over samples that lie a stride apart; what came before `src` is in the
/// ring, and `src` goes into it. Each sample is stored before it is looked up, so a delay of 0 gives it back
/// at once. `delay` is at most the ring's mask. `dst` may be `src` with the same stride, and nothing between.
/// Returns the next write index.
std::uint32_t delayColumn(SDelayRing ring, std::uint32_t delay, const float* src, std::size_t srcStride,
                          float* dst, std::size_t dstStride, std::uint32_t frames, SGainRamp ramp) noexcept;

} // namespace korvodsp
