// SPDX-License-Identifier: GPL-3.0-or-later
// A short ring unrolled along time; compiled once per instruction set.
//
// A chunk of samples is put in front of what the ring holds, so that a slot is found twice: as it is before
// the chunk gets to it, and one ring length further down as it is from then on. The vectors of outputs that
// are summed up from it need each sample in all of their lanes. Wide vectors load it that way for nothing;
// SSE2 would spend a shuffle on each product, and finds every sample four times instead.

#if defined(KORVO_DSP_RING_HISTORY_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef KORVO_DSP_RING_HISTORY_INL_H_
#undef KORVO_DSP_RING_HISTORY_INL_H_
#else
#define KORVO_DSP_RING_HISTORY_INL_H_
#endif

#include <algorithm>
#include <cstddef>
#include <utility>

#include "dsp/ring_dot.h"
#include "dsp/wide_vectors-inl.h"

HWY_BEFORE_NAMESPACE();
namespace korvodsp {
namespace HWY_NAMESPACE {

/// Longest ring that is unrolled. The longest of the stage has 164 slots.
constexpr std::size_t kMaxRing = 256;
/// Samples taken in at a time; whole rows of outputs at every ratio.
constexpr std::size_t kMaxChunk = 256;
/// Samples that the largest row of outputs takes in.
constexpr std::size_t kMaxRowSamples = 4 * kWideLanes;
/// How many times a sample is stored.
constexpr std::size_t kCopies = HWY_TARGET == HWY_SCALAR ? kWideLanes : 1;

HWY_INLINE void storeCopies(float sample, float* to)
{
    if constexpr (kCopies == 1)
        *to = sample;
    else
        hn::Store(hn::Set(Wide(), sample), Wide(), to);
}

HWY_INLINE WideVector inAllLanes(const float* copies)
{
    if constexpr (kCopies == 1)
        return hn::Set(Wide(), *copies);
    else
        return hn::Load(Wide(), copies);
}

class CHistory
{
public:
    HWY_INLINE explicit CHistory(const SRing& ring) : m_length(ring.length)
    {
        if constexpr (kCopies == 1)
            forBlocks([&](auto tag, std::size_t slot) HWY_ATTR {
                const auto samples = hn::LoadU(tag, ring.samples + slot);
                hn::StoreU(samples, tag, at(slot));
                hn::StoreU(samples, tag, at(slot + m_length));
            });
        else
            for (std::size_t slot = 0; slot < m_length; ++slot)
            {
                storeCopies(ring.samples[slot], at(slot));
                storeCopies(ring.samples[slot], at(slot + m_length));
            }
    }

    /// Where the sample of a slot is, one ring length further up while that is still the one of before.
    HWY_INLINE float* at(std::size_t slot) { return m_samples + (kBelow + slot) * kCopies; }

    /// Takes in a chunk, the first sample at the ring's index, each of the others below the one before.
    /// @param unused  samples by which its last row goes on; nothing must slow down the lanes that see them
    HWY_INLINE void take(const SRing& ring, const float* samples, std::size_t stride, std::size_t count,
                         std::size_t unused)
    {
        const auto index = static_cast<std::size_t>(ring.index);
        float* const newest = at(index);
#pragma GCC unroll 8
        for (std::size_t i = 0; i < count; ++i)
            storeCopies(samples[i * stride], newest - i * kCopies);
        if (unused != 0)
            std::fill_n(m_samples + (kBelow + index + 1 - count - unused) * kCopies, unused * kCopies, 0.0F);
    }

    /// The ring as the chunk leaves it.
    HWY_INLINE void settle(SRing& ring, std::size_t count)
    {
        const auto newest = static_cast<std::size_t>(ring.index);
        // A multiple of the length that keeps the difference above zero.
        const std::size_t last = (newest + 1 + kMaxChunk * m_length - count) % m_length;
        const float* const samples = at(newest + 1) - (count + last) * kCopies;
        if constexpr (kCopies == 1)
            forBlocks([&](auto tag, std::size_t slot) HWY_ATTR {
                const auto older = hn::LoadU(tag, samples + slot);
                const auto younger = hn::LoadU(tag, samples + slot + m_length);
                const auto isOlder =
                    hn::Ge(hn::Iota(tag, static_cast<float>(slot)), hn::Set(tag, static_cast<float>(last)));
                hn::StoreU(hn::IfThenElse(isOlder, older, younger), tag, ring.samples + slot);
            });
        else
            for (std::size_t slot = 0; slot < m_length; ++slot)
                ring.samples[slot] = samples[(slot < last ? slot + m_length : slot) * kCopies];
        ring.index = static_cast<int>((last == 0 ? m_length : last) - 1);
    }

    /// Makes what was in the slots of a row what its outputs see there: each sample of the row is new to the
    /// outputs that come with it or after it. For copies, which are as wide as the row.
    /// @param newest  the first sample of the row
    template<std::size_t every, std::size_t... turn>
    HWY_INLINE void mixRow(float* newest, std::index_sequence<turn...>) const
    {
        float* const before = newest + m_length * kCopies;
        (hn::Store(hn::IfThenElse(hn::FirstN(Wide(), turn / every), hn::Load(Wide(), before - turn * kCopies),
                                  hn::Load(Wide(), newest - turn * kCopies)),
                   Wide(), before - turn * kCopies),
         ...);
    }

    /// Replaces that by what the next rows see.
    template<std::size_t... turn>
    HWY_INLINE void settleRow(float* newest, std::index_sequence<turn...>) const
    {
        float* const before = newest + m_length * kCopies;
        (hn::Store(hn::Load(Wide(), newest - turn * kCopies), Wide(), before - turn * kCopies), ...);
    }

private:
    /// Room for a chunk and for the row that goes on behind it. One more ring lies below, of which settle()
    /// reads lanes that it does not use.
    static constexpr std::size_t kBelow = kMaxRing + kMaxChunk + kMaxRowSamples;

    /// For all slots, 4 or more at a time.
    template<class Block>
    HWY_INLINE void forBlocks(const Block& block) const
    {
        std::size_t slot = 0;
        for (; slot + kWideLanes <= m_length; slot += kWideLanes)
            block(Wide(), slot);
        for (; slot < m_length; slot += 4)
            block(Four(), slot);
    }

    std::size_t m_length;
    HWY_ALIGN_MAX float m_samples[(kBelow + 2 * kMaxRing) * kCopies];
};

} // namespace HWY_NAMESPACE
} // namespace korvodsp
HWY_AFTER_NAMESPACE();

#endif
