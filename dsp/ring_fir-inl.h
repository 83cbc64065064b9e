// SPDX-License-Identifier: GPL-3.0-or-later
// The FIR sums of a run of samples over one ring; compiled once per instruction set.
//
// Sixteen running sums belong to one output: product j goes into sum j % 16, in the order of the ring's
// slots. Laid side by side they are a row of 16 floats: one vector of AVX-512, two of AVX2, four of SSE. That
// fixes how a single output is summed up, and leaves several outputs to be summed up at a time, which is what
// hides the latency of the additions and lets them share what is loaded.
//
// Outputs of a run are grouped in one of two ways. 16 slots apart, they share the ring and the taps as well:
// the taps that meet block b of the ring in one output meet block b + 1 in the output 16 samples older. Next
// to each other, they share the ring only; that serves runs that are too short for the other way.
//
// While older outputs of a run are summed up, the slots of the younger ones must still hold what was there
// before. So the ring stays as it was, and the new samples wait beside it in an image of the blocks of the
// ring that they go to. For each output exactly one block is part new and part old.

#if defined(KORVO_DSP_RING_FIR_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef KORVO_DSP_RING_FIR_INL_H_
#undef KORVO_DSP_RING_FIR_INL_H_
#else
#define KORVO_DSP_RING_FIR_INL_H_
#endif

#include <hwy/highway.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <utility>

#include "dsp/sse2_lanes.h"

HWY_BEFORE_NAMESPACE();
namespace korvodsp {
namespace HWY_NAMESPACE {

/// Floats of a row of running sums, and slots of a block of the ring.
constexpr std::size_t kRow = 16;

#if HWY_TARGET == HWY_SCALAR
namespace hn = sse2lanes;
constexpr std::size_t kWideLanes = 4;
#else
namespace hn = hwy::HWY_NAMESPACE;
constexpr std::size_t kWideLanes = HWY_MAX_BYTES / sizeof(float);
#endif

using Wide = hn::CappedTag<float, kRow>;
using WideVector = hn::Vec<Wide>;
using Four = hn::FixedTag<float, 4>;
using FourVector = hn::Vec<Four>;

/// Outputs summed up at a time: as many as leave a register for each running sum, each vector of taps and
/// three more.
constexpr std::size_t kGroup = HWY_TARGET == HWY_AVX3 ? 8 : 6;
constexpr std::size_t kMaxRun = kRow * kGroup;

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
    HWY_ALIGN_MAX float sums[kMaxRun * kRow]; ///< a row per sample

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

template<std::size_t... k>
HWY_INLINE void multiplyAdd(WideVector (&sums)[sizeof...(k)], const WideVector (&taps)[sizeof...(k)],
                            WideVector x, std::index_sequence<k...>)
{
    ((sums[k] = hn::Add(sums[k], hn::Mul(x, taps[k]))), ...);
}

template<std::size_t... k>
HWY_INLINE void shiftTaps(WideVector (&taps)[sizeof...(k)], std::index_sequence<k...>)
{
    ((k > 0 ? void(taps[k - (k > 0)] = taps[k]) : void()), ...);
}

template<std::size_t... k>
HWY_INLINE void storeRows(const WideVector (&sums)[sizeof...(k)], float* row, std::size_t step,
                          std::index_sequence<k...>)
{
    (hn::Store(sums[k], Wide(), row + k * step), ...);
}

/// The sums of the outputs at slots newest, newest - 16, ..., newest - 16 (K - 1).
template<std::size_t K>
class CSpacedSums
{
public:
    static constexpr std::size_t kSpacing = kRow;

    /// @param part  which vector of the row
    HWY_INLINE CSpacedSums(const SRun& run, std::size_t newest, std::size_t part)
        : m_run(run), m_newest(newest), m_part(part), m_taps(run.alignedTapsFor(newest) + part)
    {
        for (std::size_t k = 0; k < K; ++k)
            m_sums[k] = hn::Zero(Wide());
        for (std::size_t k = 0; k + 1 < K; ++k)
            m_window[k] = loadTaps(k);
    }

    HWY_INLINE void add(float* rows, std::size_t rowStep)
    {
        const std::size_t blocks = m_run.length / kRow;
        const std::size_t mixed = m_newest / kRow;
        const std::size_t top = m_run.newest / kRow;
        addBlocks(m_run.ring, 0, mixed - (K - 1));
        addOlderMixedBlocks(mixed, std::make_index_sequence<K - 1>());
        if (mixed < blocks)
            addMixedBlock<0>(mixed);
        if (mixed < top && top < blocks)
            addBlock(m_run.fresh(top * kRow), top);
        addBlocks(m_run.ring, top + 1, blocks);
        storeRows(m_sums, rows + m_part, rowStep, Index());
    }

private:
    using Index = std::make_index_sequence<K>;

    HWY_INLINE WideVector loadTaps(std::size_t block) const
    {
        return hn::LoadU(Wide(), m_taps + block * kRow);
    }

    HWY_INLINE void addBlock(const float* samples, std::size_t block)
    {
        m_window[K - 1] = loadTaps(block + K - 1);
        multiplyAdd(m_sums, m_window, hn::LoadU(Wide(), samples + m_part), Index());
        shiftTaps(m_window, Index());
    }

    HWY_INLINE void addBlocks(const float* ring, std::size_t block, std::size_t end)
    {
        for (; block + 4 <= end; block += 4)
        {
            addBlock(ring + block * kRow, block);
            addBlock(ring + (block + 1) * kRow, block + 1);
            addBlock(ring + (block + 2) * kRow, block + 2);
            addBlock(ring + (block + 3) * kRow, block + 3);
        }
        for (; block < end; ++block)
            addBlock(ring + block * kRow, block);
    }

    template<std::size_t... i>
    HWY_INLINE void addOlderMixedBlocks(std::size_t mixed, std::index_sequence<i...>)
    {
        (addMixedBlock<K - 1 - i>(mixed - (K - 1 - i)), ...);
    }

    /// The block that is mixed for output `own`: still all old for the ones before it, all new for those
    /// after.
    template<std::size_t own>
    HWY_INLINE void addMixedBlock(std::size_t block)
    {
        m_window[K - 1] = loadTaps(block + K - 1);
        const WideVector old = hn::LoadU(Wide(), m_run.ring + block * kRow + m_part);
        const WideVector fresh = hn::LoadU(Wide(), m_run.fresh(block * kRow) + m_part);
        const auto isFresh = hn::Ge(hn::Iota(Wide(), static_cast<float>(m_part)),
                                    hn::Set(Wide(), static_cast<float>(m_newest % kRow)));
        multiplyAddMixed<own>(old, hn::IfThenElse(isFresh, fresh, old), fresh, Index());
        shiftTaps(m_window, Index());
    }

    template<std::size_t own, std::size_t... k>
    HWY_INLINE void multiplyAddMixed(WideVector old, WideVector mixed, WideVector fresh,
                                     std::index_sequence<k...>)
    {
        ((m_sums[k] = hn::Add(m_sums[k], hn::Mul(k < own    ? old
                                                 : k == own ? mixed
                                                            : fresh,
                                                 m_window[k]))),
         ...);
    }

    const SRun& m_run;
    const std::size_t m_newest;
    const std::size_t m_part;
    const float* const m_taps;
    WideVector m_sums[K];
    WideVector m_window[K]; ///< the taps of the current block for each output
};

/// The sums of the outputs at slots newest, newest - 1, ..., newest - (K - 1).
template<std::size_t K>
class CAdjacentSums
{
public:
    static constexpr std::size_t kSpacing = 1;

    HWY_INLINE CAdjacentSums(const SRun& run, std::size_t newest, std::size_t part)
        : m_run(run), m_newest(newest), m_part(part), m_taps(run.tapsFor(newest) + part)
    {
        for (WideVector& sum : m_sums)
            sum = hn::Zero(Wide());
    }

    HWY_INLINE void add(float* rows, std::size_t rowStep)
    {
        const std::size_t blocks = m_run.length / kRow;
        const std::size_t mixed = (m_newest - (K - 1)) / kRow;
        const std::size_t afterMixed = m_newest / kRow + 1;
        const std::size_t afterTop = m_run.newest / kRow + 1;
        for (std::size_t block = 0; block < mixed; ++block)
            addBlock(m_run.ring + block * kRow, block, Index());
        for (std::size_t block = mixed; block < std::min(afterMixed, blocks); ++block)
            addMixedBlock(block, Index());
        for (std::size_t block = afterMixed; block < std::min(afterTop, blocks); ++block)
            addBlock(m_run.fresh(block * kRow), block, Index());
        for (std::size_t block = afterTop; block < blocks; ++block)
            addBlock(m_run.ring + block * kRow, block, Index());
        storeRows(m_sums, rows + m_part, rowStep, Index());
    }

private:
    using Index = std::make_index_sequence<K>;

    HWY_INLINE WideVector taps(std::size_t block, std::size_t output) const
    {
        return hn::LoadU(Wide(), m_taps + block * kRow + output);
    }

    template<std::size_t... k>
    HWY_INLINE void addBlock(const float* samples, std::size_t block, std::index_sequence<k...>)
    {
        const WideVector x = hn::LoadU(Wide(), samples + m_part);
        ((m_sums[k] = hn::Add(m_sums[k], hn::Mul(x, taps(block, k)))), ...);
    }

    template<std::size_t... k>
    HWY_INLINE void addMixedBlock(std::size_t block, std::index_sequence<k...>)
    {
        const WideVector old = hn::LoadU(Wide(), m_run.ring + block * kRow + m_part);
        const WideVector fresh = hn::LoadU(Wide(), m_run.fresh(block * kRow) + m_part);
        // How far the first output's slot lies above each lane. The difference of the slots is small and
        // exact as a float, which the slots of a very long ring are not.
        const auto aboveBlock =
            static_cast<std::ptrdiff_t>(m_newest) - static_cast<std::ptrdiff_t>(block * kRow);
        const WideVector above = hn::Sub(hn::Set(Wide(), static_cast<float>(aboveBlock)),
                                         hn::Iota(Wide(), static_cast<float>(m_part)));
        ((m_sums[k] = hn::Add(
              m_sums[k],
              hn::Mul(hn::IfThenElse(hn::Le(above, hn::Set(Wide(), static_cast<float>(k))), fresh, old),
                      taps(block, k)))),
         ...);
    }

    const SRun& m_run;
    const std::size_t m_newest;
    const std::size_t m_part;
    const float* const m_taps;
    WideVector m_sums[K];
};

/// Adds the slots behind the last whole block, less than kRow of them, to the first four sums of K rows.
/// Output k is that of the sample at newest - k * spacing.
template<std::size_t K>
HWY_INLINE void addRest(const SRun& run, std::size_t newest, std::size_t spacing, float* rows,
                        std::size_t rowStep)
{
    const Four four;
    const std::size_t rest = run.length & ~(kRow - 1);
    const float* taps = spacing % 4 == 0 ? run.alignedTapsFor(newest) : run.tapsFor(newest);
    // The image is up to date for all slots from an output's own on, and the ring for those below.
    const float* samples = run.newest >= rest ? run.fresh(rest) : run.ring + rest;
    for (std::size_t k = 0; k < K; ++k)
    {
        const std::size_t slot = newest - k * spacing;
        FourVector sum = hn::Load(four, rows + k * rowStep);
        for (std::size_t j = rest; j < run.length; j += 4)
        {
            FourVector x = hn::Load(four, samples + (j - rest));
            if (slot > j)
                x = hn::IfThenElse(hn::Ge(hn::Iota(four, 0.0F), hn::Set(four, static_cast<float>(slot - j))),
                                   x, hn::Load(four, run.ring + j));
            sum = hn::Add(sum, hn::Mul(x, hn::LoadU(four, taps + k * spacing + j)));
        }
        hn::Store(sum, four, rows + k * rowStep);
    }
}

template<template<std::size_t> class Sums, std::size_t K>
HWY_NOINLINE void addGroup(const SRun& run, std::size_t newest, float* rows, std::size_t rowStep)
{
    for (std::size_t part = 0; part < kRow; part += kWideLanes)
        Sums<K>(run, newest, part).add(rows, rowStep);
    if (run.length % kRow != 0)
        addRest<K>(run, newest, Sums<K>::kSpacing, rows, rowStep);
}

using AddGroup = void (*)(const SRun&, std::size_t newest, float* rows, std::size_t rowStep);

template<template<std::size_t> class Sums, std::size_t... k>
HWY_INLINE AddGroup groupOf(std::size_t outputs, std::index_sequence<k...>)
{
    static constexpr AddGroup kGroups[] = {&addGroup<Sums, k + 1>...};
    return kGroups[outputs - 1];
}

template<template<std::size_t> class Sums>
HWY_INLINE AddGroup groupOf(std::size_t outputs)
{
    return groupOf<Sums>(outputs, std::make_index_sequence<kGroup>());
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

/// Sums up the run, and calls between(n) after each group of n samples.
template<class Between>
HWY_INLINE void sumSlots(SRun& run, const Between& between)
{
    // Spaced groups get smaller as runs get shorter; measured, neighbours are faster below four to a group.
    if (run.frames >= 4 * kRow)
    {
        for (std::size_t i = 0; i < kRow; ++i)
        {
            const std::size_t samples = (run.frames - i + kRow - 1) / kRow;
            groupOf<CSpacedSums>(samples)(run, run.newest - i, run.sums + i * kRow, kRow * kRow);
            between(samples);
        }
        return;
    }
    for (std::size_t i = 0; i < run.frames; i += kGroup)
    {
        const std::size_t samples = std::min(run.frames - i, kGroup);
        groupOf<CAdjacentSums>(samples)(run, run.newest - i, run.sums + i * kRow, kRow);
        between(samples);
    }
}

/// Moves the run's samples into the ring, when all sums are done.
HWY_INLINE void writeSamples(const SRun& run)
{
    const std::size_t oldest = run.newest + 1 - run.frames;
    std::copy_n(run.fresh(oldest), run.frames, run.ring + oldest);
}

/// (a0 + a1) + (a2 + a3) of a row.
HWY_INLINE FourVector sumOfRow(const float* row)
{
    const Four four;
    return hn::Add(hn::Add(hn::Load(four, row), hn::Load(four, row + 4)),
                   hn::Add(hn::Load(four, row + 8), hn::Load(four, row + 12)));
}

/// ((l0 + l1) + l2) + l3 of each of four vectors, side by side.
HWY_INLINE FourVector sumsOfLanes(FourVector v0, FourVector v1, FourVector v2, FourVector v3)
{
    const Four four;
    const FourVector low01 = hn::InterleaveLower(four, v0, v1);
    const FourVector low23 = hn::InterleaveLower(four, v2, v3);
    const FourVector high01 = hn::InterleaveUpper(four, v0, v1);
    const FourVector high23 = hn::InterleaveUpper(four, v2, v3);
    const FourVector lane0 = hn::ConcatLowerLower(four, low23, low01);
    const FourVector lane1 = hn::ConcatUpperUpper(four, low23, low01);
    const FourVector lane2 = hn::ConcatLowerLower(four, high23, high01);
    const FourVector lane3 = hn::ConcatUpperUpper(four, high23, high01);
    return hn::Add(hn::Add(hn::Add(lane0, lane1), lane2), lane3);
}

/// The results of a run, one float per output; room for three more is needed at `results`, which is aligned.
HWY_INLINE void finishSums(const SRun& run, float* results)
{
    for (std::size_t i = 0; i < run.frames; i += 4)
    {
        const float* row = run.sums + i * kRow;
        hn::Store(sumsOfLanes(sumOfRow(row), sumOfRow(row + kRow), sumOfRow(row + 2 * kRow),
                              sumOfRow(row + 3 * kRow)),
                  Four(), results + i);
    }
}

} // namespace HWY_NAMESPACE
} // namespace korvodsp
HWY_AFTER_NAMESPACE();

#endif
