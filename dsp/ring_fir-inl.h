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
// The samples of the run wait beside the ring meanwhile; for each output exactly one block is part new and
// part old.

#if defined(KORVO_DSP_RING_FIR_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef KORVO_DSP_RING_FIR_INL_H_
#undef KORVO_DSP_RING_FIR_INL_H_
#else
#define KORVO_DSP_RING_FIR_INL_H_
#endif

#include <algorithm>
#include <cstddef>
#include <utility>

#include "dsp/ring_run-inl.h"

HWY_BEFORE_NAMESPACE();
namespace korvodsp {
namespace HWY_NAMESPACE {

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

/// Goes along with sums where there is nothing else to do. A companion is made for some work, takes a step
/// for each output, and finishes.
struct CNoSteps
{
    struct Work
    {
    };
    HWY_INLINE CNoSteps() = default;
    HWY_INLINE explicit CNoSteps(const Work&) {}
    HWY_INLINE void step() {}
    HWY_INLINE void finish() {}
};

/// The sums of outputs first, first + 16, ..., first + 16 (K - 1) of a run.
template<std::size_t K>
class CSpacedSums
{
public:
    /// @param part  of the running sums, from which on there is a vector of them
    HWY_INLINE CSpacedSums(SRun& run, std::size_t first, std::size_t part)
        : m_run(run), m_first(first), m_newest(run.newest - first), m_part(part),
          m_taps(run.alignedTapsFor(m_newest) + part)
    {
        for (std::size_t k = 0; k < K; ++k)
            m_sums[k] = hn::Zero(Wide());
        for (std::size_t k = 0; k + 1 < K; ++k)
            m_window[k] = loadTaps(k);
    }

    /// Lets the companion take its share of K steps.
    template<class Companion>
    HWY_INLINE void add(Companion& companion)
    {
        const std::size_t blocks = m_run.length / kRow;
        const std::size_t mixed = m_newest / kRow;
        const std::size_t top = m_run.newest / kRow;
        addBlocks(m_run.ring, 0, mixed - (K - 1));
        addOlderMixedBlocks(mixed, companion, std::make_index_sequence<K - 1>());
        if (mixed < blocks)
            addMixedBlock<0>(mixed);
        accompany<0>(companion);
        if (mixed < top && top < blocks)
            addBlock(m_run.fresh(top * kRow), top);
        addBlocks(m_run.ring, top + 1, blocks);
        for (std::size_t k = 0; k < K; ++k)
            storeSums(m_run, lanesOf(m_first) + k * kRow * 4, m_part, m_sums[k]);
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

    template<class Companion, std::size_t... i>
    HWY_INLINE void addOlderMixedBlocks(std::size_t mixed, Companion& companion, std::index_sequence<i...>)
    {
        ((addMixedBlock<K - 1 - i>(mixed - (K - 1 - i)), accompany<K - 1 - i>(companion)), ...);
    }

    /// A step for each output, in turns over the vectors of the row.
    template<std::size_t own, class Companion>
    HWY_INLINE void accompany(Companion& companion)
    {
        if (own % (kRow / kWideLanes) == m_part / kWideLanes)
            companion.step();
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

    SRun& m_run;
    const std::size_t m_first;
    const std::size_t m_newest; ///< slot of the first output
    const std::size_t m_part;
    const float* const m_taps;
    WideVector m_sums[K];
    WideVector m_window[K]; ///< the taps of the current block for each output
};

/// The sums of outputs first, first + 1, ..., first + K - 1 of a run.
template<std::size_t K>
class CAdjacentSums
{
public:
    HWY_INLINE CAdjacentSums(SRun& run, std::size_t first, std::size_t part)
        : m_run(run), m_first(first), m_newest(run.newest - first), m_part(part),
          m_taps(run.tapsFor(m_newest) + part)
    {
        for (WideVector& sum : m_sums)
            sum = hn::Zero(Wide());
    }

    /// Lets the companion take its share of K steps.
    template<class Companion>
    HWY_INLINE void add(Companion& companion)
    {
        const std::size_t blocks = m_run.length / kRow;
        const std::size_t mixed = (m_newest - (K - 1)) / kRow;
        const std::size_t afterMixed = m_newest / kRow + 1;
        const std::size_t afterTop = m_run.newest / kRow + 1;
        constexpr std::size_t kParts = kRow / kWideLanes;
        std::size_t steps = (K + kParts - 1 - m_part / kWideLanes) / kParts;
        const auto addOldBlocks = [&](std::size_t begin, std::size_t end) HWY_ATTR {
            for (std::size_t block = begin; block < end; ++block)
            {
                addBlock(m_run.ring + block * kRow, block, Index());
                if (steps > 0)
                {
                    companion.step();
                    --steps;
                }
            }
        };
        addOldBlocks(0, mixed);
        for (std::size_t block = mixed; block < std::min(afterMixed, blocks); ++block)
            addMixedBlock(block, Index());
        for (std::size_t block = afterMixed; block < std::min(afterTop, blocks); ++block)
            addBlock(m_run.fresh(block * kRow), block, Index());
        addOldBlocks(afterTop, blocks);
        for (; steps > 0; --steps)
            companion.step();
        for (std::size_t k = 0; k < K; ++k)
            storeSums(m_run, lanesOf(m_first + k), m_part, m_sums[k]);
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

    SRun& m_run;
    const std::size_t m_first;
    const std::size_t m_newest; ///< slot of the first output
    const std::size_t m_part;
    const float* const m_taps;
    WideVector m_sums[K];
};

/// Adds the slots behind the last whole block, less than kRow of them, to a0 of outputs first, first +
/// spacing, ..., K in all.
template<std::size_t K>
HWY_INLINE void addRest(SRun& run, std::size_t first, std::size_t spacing)
{
    const Four four;
    const std::size_t rest = run.length & ~(kRow - 1);
    const std::size_t newest = run.newest - first;
    const float* taps = spacing % 4 == 0 ? run.alignedTapsFor(newest) : run.tapsFor(newest);
    // The image is up to date for all slots from an output's own on, and the ring for those below.
    const float* samples = run.newest >= rest ? run.fresh(rest) : run.ring + rest;
    for (std::size_t k = 0; k < K; ++k)
    {
        const std::size_t slot = newest - k * spacing;
        float* const lanes = run.sums[0] + lanesOf(first + k * spacing);
        FourVector sum = hn::Load(four, lanes);
        for (std::size_t j = rest; j < run.length; j += 4)
        {
            FourVector x = hn::Load(four, samples + (j - rest));
            if (slot > j)
                x = hn::IfThenElse(hn::Ge(hn::Iota(four, 0.0F), hn::Set(four, static_cast<float>(slot - j))),
                                   x, hn::Load(four, run.ring + j));
            sum = hn::Add(sum, hn::Mul(x, hn::LoadU(four, taps + k * spacing + j)));
        }
        hn::Store(sum, four, lanes);
    }
}

/// K outputs, kRow apart, for each `first` up to `end`.
template<std::size_t K, class Companion>
HWY_NOINLINE void addSpacedGroups(SRun& run, std::size_t first, std::size_t end,
                                  typename Companion::Work& work)
{
    Companion companion(work);
    for (std::size_t i = first; i < end; ++i)
    {
        for (std::size_t part = 0; part < kRow; part += kWideLanes)
            CSpacedSums<K>(run, i, part).add(companion);
        if (run.length % kRow != 0)
            addRest<K>(run, i, kRow);
    }
    companion.finish();
}

/// K neighbours.
template<std::size_t K, class Companion>
HWY_INLINE void addAdjacentGroup(SRun& run, std::size_t first, Companion& companion)
{
    for (std::size_t part = 0; part < kRow; part += kWideLanes)
        CAdjacentSums<K>(run, first, part).add(companion);
    if (run.length % kRow != 0)
        addRest<K>(run, first, 1);
}

/// Fewer neighbours than fill a group.
template<std::size_t K>
HWY_NOINLINE void addShortGroup(SRun& run, std::size_t first)
{
    CNoSteps none;
    addAdjacentGroup<K>(run, first, none);
}

/// Spaced groups get smaller as runs get shorter; measured, neighbours are faster below three to a group.
constexpr std::size_t kMinSpaced = 3;

template<class Companion, std::size_t... k>
HWY_INLINE void sumSpaced(SRun& run, typename Companion::Work& work, std::index_sequence<k...>)
{
    static constexpr void (*kAdd[])(SRun&, std::size_t, std::size_t, typename Companion::Work&) = {
        &addSpacedGroups<kMinSpaced + k, Companion>...};
    const std::size_t shorter = run.frames / kRow; // outputs in a group, after some groups of one more
    const std::size_t longerGroups = run.frames % kRow;
    if (longerGroups != 0)
        kAdd[shorter + 1 - kMinSpaced](run, 0, longerGroups, work);
    kAdd[shorter - kMinSpaced](run, longerGroups, kRow, work);
}

/// Sums up a run of kMinSpaced * kRow samples or more.
/// @param work  what the companion steps through, a step for each sample
template<class Companion>
HWY_INLINE void sumSpaced(SRun& run, typename Companion::Work& work)
{
    sumSpaced<Companion>(run, work, std::make_index_sequence<kGroup - kMinSpaced + 1>());
}

template<std::size_t... k>
HWY_INLINE void addShortGroup(SRun& run, std::size_t first, std::index_sequence<k...>)
{
    static constexpr void (*kAdd[])(SRun&, std::size_t) = {&addShortGroup<k + 1>...};
    if (first < run.frames)
        kAdd[run.frames - first - 1](run, first);
}

/// Sums up any run.
/// @param work  as for sumSpaced()
template<class Companion>
HWY_NOINLINE void sumAdjacent(SRun& run, typename Companion::Work& work)
{
    Companion companion(work);
    std::size_t i = 0;
    for (; i + kGroup <= run.frames; i += kGroup)
        addAdjacentGroup<kGroup>(run, i, companion);
    addShortGroup(run, i, std::make_index_sequence<kGroup - 1>());
    for (; i < run.frames; ++i)
        companion.step();
    companion.finish();
}

} // namespace HWY_NAMESPACE
} // namespace korvodsp
HWY_AFTER_NAMESPACE();

#endif
