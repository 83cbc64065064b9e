// SPDX-License-Identifier: GPL-3.0-or-later
// A run of samples over a ring; compiled once per instruction set.
//
// While older outputs of a run are summed up, the slots of the younger ones must still hold what was there
// before. So the ring stays as it was, and the new samples wait beside it in an image of the blocks of the
// ring that they go to.

#if defined(KORVO_DSP_RING_RUN_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef KORVO_DSP_RING_RUN_INL_H_
#undef KORVO_DSP_RING_RUN_INL_H_
#else
#define KORVO_DSP_RING_RUN_INL_H_
#endif

#include <algorithm>
#include <cstddef>

#include "dsp/wide_vectors-inl.h"

HWY_BEFORE_NAMESPACE();
namespace korvodsp {
namespace HWY_NAMESPACE {

/// One run of samples, which goes to the slots newest, newest - 1, ... of a ring, and its sums.
struct SRun
{
    const float* const* banks;  ///< the taps: 4 rotations, each twice in a row, 16-byte aligned
    float* ring;                ///< 16-byte aligned
    std::size_t length;         ///< of the ring; a multiple of 4
    std::size_t newest = 0;     ///< slot of the first sample of the run
    std::size_t frames = 0;     ///< samples in the run
    std::size_t imageStart = 0; ///< first slot of the image, a multiple of kRow
    HWY_ALIGN_MAX float image[kMaxRun + 2 * kRow];
    HWY_ALIGN_MAX float sums[kRow / 4][kLanesOfRun]; ///< a0 to a3 of each sample, placed by lanesOf()

    const float* fresh(std::size_t slot) const { return image + (slot - imageStart); }
    /// Taps as they meet slot 0 of the ring, for the output of the sample at `slot`. The ones for the samples
    /// after it follow, a step up for every slot down.
    const float* tapsFor(std::size_t slot) const { return banks[0] + length - slot; }
    /// The same for that sample alone and those a multiple of four slots down, 16-byte aligned.
    const float* alignedTapsFor(std::size_t slot) const
    {
        return banks[slot & 3] + length - (slot & ~std::size_t{3});
    }
};

/// Puts what belongs to an output, from sum `part` on, in its place.
/// @param lanes  the output's lanesOf()
HWY_INLINE void storeSums(SRun& run, std::size_t lanes, std::size_t part, WideVector sums)
{
    storeFours(sums, run.sums[part / 4] + lanes, kLanesOfRun);
}

/// Makes the next run out of `left` samples, the first of which goes to `newest`. It ends where the
/// slots wrap. All runs up to there get about the same length, since a short one works in
/// smaller groups.
HWY_INLINE void beginRun(SRun& run, std::size_t newest, std::size_t left)
{
    const std::size_t untilWrap = std::min(left, newest + 1);
    const std::size_t runs = (untilWrap + kMaxRun - 1) / kMaxRun;
    run.newest = newest;
    run.frames = (untilWrap + runs - 1) / runs;
}

HWY_INLINE std::size_t slotAfter(const SRun& run)
{
    return (run.newest >= run.frames ? run.newest : run.newest + run.length) - run.frames;
}

/// to[count - 1 - i] = from[i]. The ring runs against time, all else with it.
HWY_INLINE void copyReversed(const float* from, std::size_t count, float* to)
{
    std::size_t i = 0;
    for (; i + kWideLanes <= count; i += kWideLanes)
        hn::StoreU(hn::Reverse(Wide(), hn::LoadU(Wide(), from + i)), Wide(), to + (count - kWideLanes - i));
    for (; i < count; ++i)
        to[count - 1 - i] = from[i];
}

/// Puts the run's samples beside the ring. `samples` may be the run's output.
HWY_INLINE void takeSamples(SRun& run, const float* samples, std::size_t stride)
{
    const std::size_t oldest = run.newest + 1 - run.frames;
    run.imageStart = oldest & ~(kRow - 1);
    const std::size_t end = std::min((run.newest | (kRow - 1)) + 1, run.length);
    std::copy(run.ring + run.newest + 1, run.ring + end, run.image + (run.newest + 1 - run.imageStart));
    float* image = run.image + (oldest - run.imageStart);
    if (stride == 1)
        return copyReversed(samples, run.frames, image);
    for (std::size_t i = 0; i < run.frames; ++i)
        image[run.frames - 1 - i] = samples[i * stride];
}

/// Moves the run's samples into the ring, when all sums are done.
HWY_INLINE void writeSamples(const SRun& run)
{
    const std::size_t oldest = run.newest + 1 - run.frames;
    std::copy_n(run.fresh(oldest), run.frames, run.ring + oldest);
}

/// The sums of kWideLanes outputs of a run, all of (a0 + a1) + (a2 + a3).
HWY_INLINE WideVector finishSums(const SRun& run, std::size_t first)
{
    const Wide wide;
    WideVector lanes[4];
    for (std::size_t v = 0; v < 4; ++v)
    {
        const std::size_t at = 4 * first + v * kWideLanes;
        lanes[v] = hn::Add(hn::Add(hn::Load(wide, run.sums[0] + at), hn::Load(wide, run.sums[1] + at)),
                           hn::Add(hn::Load(wide, run.sums[2] + at), hn::Load(wide, run.sums[3] + at)));
    }
    return sumLanes(lanes);
}

} // namespace HWY_NAMESPACE
} // namespace korvodsp
HWY_AFTER_NAMESPACE();

#endif
