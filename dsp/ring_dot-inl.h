// SPDX-License-Identifier: GPL-3.0-or-later
// The passes of ring_dot.h; compiled once per instruction set. Their sums are those of ring_fir-inl.h.

#if defined(KORVO_DSP_RING_DOT_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef KORVO_DSP_RING_DOT_INL_H_
#undef KORVO_DSP_RING_DOT_INL_H_
#else
#define KORVO_DSP_RING_DOT_INL_H_
#endif

#include <algorithm>
#include <cstddef>

#include "dsp/ring_dot.h"
#include "dsp/ring_fir-inl.h"

HWY_BEFORE_NAMESPACE();
namespace korvodsp {
namespace HWY_NAMESPACE {

HWY_INLINE void attach(SRun& run, const SRing& ring, const float* const* banks)
{
    run.banks = banks;
    run.ring = ring.samples;
    run.length = ring.length;
}

/// results[i] * scale, one every `step` floats.
HWY_INLINE void giveScaled(const float* results, std::size_t count, float scale, float* out, std::size_t step)
{
    for (std::size_t i = 0; i < count; ++i)
        out[i * step] = results[i] * scale;
}

HWY_INLINE void sumRun(SRun& run, float* results)
{
    sumSlots(run, [](std::size_t) {});
    finishSums(run, results);
}

HWY_NOINLINE void ringFilter(SRing& ring, const float* const banks[4], SConstColumn in, SColumn out,
                             unsigned frames, float scale)
{
    SRun run;
    HWY_ALIGN_MAX float results[kMaxRun + 3];
    attach(run, ring, banks);
    std::size_t done = 0;
    for (; done < frames; done += run.frames)
    {
        beginRun(run, static_cast<std::size_t>(ring.index), frames - done);
        takeSamples(run, in.samples + done * in.stride, in.stride);
        sumRun(run, results);
        writeSamples(run);
        giveScaled(results, run.frames, scale, out.samples + done * out.stride, out.stride);
        ring.index = static_cast<int>(slotAfter(run));
    }
}

HWY_NOINLINE void ringDecimate(SRing& ring, const float* const banks[4], unsigned ratio, SConstColumn in,
                               SColumn out, unsigned frames)
{
    SRun run;
    HWY_ALIGN_MAX float results[kMaxRun + 3];
    attach(run, ring, banks);
    run.every = ratio;
    for (std::size_t done = 0; done < frames; done += run.frames)
    {
        beginRun(run, static_cast<std::size_t>(ring.index), frames - done);
        run.first = ratio - 1 - done % ratio;
        takeSamples(run, in.samples + done * in.stride, in.stride);
        sumRun(run, results);
        writeSamples(run);
        giveScaled(results, run.outputs(), 1.0F, out.samples + done / ratio * out.stride, out.stride);
        ring.index = static_cast<int>(slotAfter(run));
    }
}

HWY_NOINLINE void ringInterpolate(SRing& ring, const float* const* banks, unsigned ratio, SConstColumn in,
                                  SColumn out, unsigned frames, float scale)
{
    SRun run;
    HWY_ALIGN_MAX float results[kMaxRun + 3];
    attach(run, ring, banks);
    run.lead = 1;
    const std::size_t samples = (std::size_t{frames} + ratio - 1) / ratio;
    for (std::size_t done = 0; done < samples; done += run.frames)
    {
        beginRun(run, static_cast<std::size_t>(ring.index), samples - done);
        takeSamples(run, in.samples + done * in.stride, in.stride);
        for (std::size_t phase = 0; phase < ratio; ++phase)
        {
            run.banks = banks + 4 * phase;
            sumRun(run, results);
            const std::size_t from = done * ratio + phase;
            const std::size_t wanted = from < frames ? (frames - from + ratio - 1) / ratio : 0;
            giveScaled(results, std::min(run.frames, wanted), scale, out.samples + from * out.stride,
                       std::size_t{ratio} * out.stride);
        }
        writeSamples(run);
        ring.index = static_cast<int>(slotAfter(run));
    }
}

} // namespace HWY_NAMESPACE
} // namespace korvodsp
HWY_AFTER_NAMESPACE();

#endif
