// SPDX-License-Identifier: GPL-3.0-or-later
// The passes of ring_dot.h; compiled once per instruction set.
//
// The rings of the multi-rate stage are short, so that a run of samples would end at their wrap all the time,
// and the sums across a vector would cost as much as the products. Here each lane of a vector is an output of
// its own: slot after slot of the ring is multiplied with the taps that meet it in a row of consecutive
// outputs, which lie side by side in the table, since a step in time is a step in the table. The sixteen
// running sums of an output are sixteen vectors, and they are added up without a sum across lanes. Each lane
// goes through the fixed order of summation.
//
// Loads are what limits this: two for each product, most of those of taps across a cache line.

#if defined(KORVO_DSP_RING_DOT_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef KORVO_DSP_RING_DOT_INL_H_
#undef KORVO_DSP_RING_DOT_INL_H_
#else
#define KORVO_DSP_RING_DOT_INL_H_
#endif

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <utility>

#include "dsp/ring_dot.h"
#include "dsp/ring_history-inl.h"
#include "dsp/wide_vectors-inl.h"

HWY_BEFORE_NAMESPACE();
namespace korvodsp {
namespace HWY_NAMESPACE {

static_assert(kRingRow == kRow);

/// Running sums that are kept in registers at a time. Twice as many are no faster where they would fit.
constexpr std::size_t kSumsAtATime = 8;

/// 0, 1, 2, ... as floats to compare lanes with, and kSumsAtATime of their negatives before.
struct STurns
{
    float values[kMaxRowSamples + 3 * kSumsAtATime];

    constexpr STurns() : values()
    {
        for (std::size_t i = 0; i < std::size(values); ++i)
            values[i] = static_cast<float>(i) - kSumsAtATime;
    }
    const float* from(std::size_t turn) const { return values + kSumsAtATime + turn; }
};
constexpr STurns kTurns;

/// The dot products of a row of outputs, one per lane, that take in `every` samples each. All `phases` see
/// the same samples.
template<std::size_t every, std::size_t phases>
class CRow
{
public:
    static constexpr std::size_t kSamples = every * kWideLanes;

    /// Whether a ring is long enough for no sample of a row to go where another one went, nor close behind.
    static bool fits(const SRing& ring)
    {
        return ring.length >= kSamples + kSumsAtATime && ring.length <= kMaxRing;
    }

    /// @param newest    the row's first sample in the history
    /// @param slot      and its slot in the ring
    /// @param position  ring position of the dot product that would come with it
    /// @param taps      of each phase, as outputs that far apart meet them
    HWY_INLINE CRow(const float* newest, std::size_t slot, std::size_t length, std::size_t position,
                    const float* const (&taps)[phases])
        : m_newest(newest), m_slot(slot), m_length(length)
    {
        for (std::size_t k = 0; k < every; ++k)
        {
            // The first output is taken when the last of its samples is in.
            const std::size_t tap = length - position + every - 1 + k;
            for (std::size_t phase = 0; phase < phases; ++phase)
                m_taps[phase][k] = taps[phase] + tap % every * spacedTapsSize(length, every) + tap / every;
        }
    }

    HWY_INLINE void sum(WideVector (&results)[phases]) const
    {
        WideVector pairs[phases][kRow / 2];
        sumPairs(pairs, std::make_index_sequence<kRow / kSums>());
        for (std::size_t phase = 0; phase < phases; ++phase)
        {
            const WideVector(&pair)[kRow / 2] = pairs[phase];
            results[phase] = hn::Add(pair[0], pair[4]);
            for (std::size_t lane = 1; lane < 4; ++lane)
                results[phase] = hn::Add(results[phase], hn::Add(pair[lane], pair[4 + lane]));
        }
    }

private:
    /// Running sums of each phase, and slots that are multiplied in one go.
    static constexpr std::size_t kSums = kSumsAtATime / phases;
    using Sums = WideVector[phases][kSums];
    /// The lanes of a0 + a1, and those of a2 + a3.
    using Pairs = WideVector[phases][kRow / 2];

    template<std::size_t... i>
    HWY_INLINE void sumPairs(Pairs& pairs, std::index_sequence<i...>) const
    {
        (sumFrom<i * kSums>(pairs, std::make_index_sequence<kSums>()), ...);
    }

    template<std::size_t first, std::size_t... k>
    HWY_INLINE void sumFrom(Pairs& pairs, std::index_sequence<k...> slots) const
    {
        Sums sums;
        for (std::size_t phase = 0; phase < phases; ++phase)
            ((sums[phase][k] = hn::Zero(Wide())), ...);
        const std::size_t rest = m_length & ~(kRow - 1);
        addSlots<kRow>(sums, first, rest, slots);
        if constexpr (first < 4) // all of the rest goes into a0
            addSlots<4>(sums, rest + first, m_length,
                        std::make_index_sequence<std::min<std::size_t>(kSums, 4)>());
        for (std::size_t phase = 0; phase < phases; ++phase)
            (addToPair<first + k>(pairs[phase], sums[phase][k]), ...);
    }

    template<std::size_t which>
    HWY_INLINE static void addToPair(WideVector (&pairs)[kRow / 2], WideVector sum)
    {
        WideVector& pair = pairs[which / 8 * 4 + which % 4];
        pair = which / 4 % 2 == 0 ? sum : hn::Add(pair, sum);
    }

    /// Every step-th slot with the ones next to it. Up to the newest sample, slots are either far enough
    /// ahead of the row to hold what they held before, or near enough for outputs to differ in what they see;
    /// above it the same again, one round earlier.
    template<std::size_t step, std::size_t... k>
    HWY_INLINE void addSlots(Sums& sums, std::size_t slot, std::size_t end,
                             std::index_sequence<k...> /*slots*/) const
    {
        constexpr std::size_t near = kSamples + sizeof...(k) - 1;
        std::size_t newest = m_slot;
        const float* now = m_newest - newest * kCopies;
        for (int round = 0; round < 2; ++round)
        {
            const float* const before = now + m_length * kCopies;
            // Copies are made to hold what the outputs see, and need no such difference.
            for (; slot < end && slot + (kCopies == 1 ? near : 0) <= newest; slot += step)
                (addProducts<k>(sums, slot, inAllLanes(before + (slot + k) * kCopies)), ...);
            if constexpr (kCopies == 1)
                for (; slot < end && slot <= newest; slot += step)
                    (addProducts<k>(sums, slot,
                                    seen(before + slot + k, now + slot + k, kTurns.from(newest - slot) - k)),
                     ...);
            newest += m_length;
            now -= m_length * kCopies;
        }
    }

    /// The sample of this turn is new to the outputs that come with it or after it, while those before see
    /// what was in its slot.
    HWY_INLINE static WideVector seen(const float* before, const float* now, const float* turn)
    {
        const WideVector samplesTaken = hn::Mul(hn::Iota(Wide(), 1.0F), hn::Set(Wide(), every));
        return hn::IfThenElse(hn::Le(samplesTaken, hn::Set(Wide(), *turn)), hn::Set(Wide(), *before),
                              hn::Set(Wide(), *now));
    }

    template<std::size_t k>
    HWY_INLINE void addProducts(Sums& sums, std::size_t slot, WideVector samples) const
    {
        for (std::size_t phase = 0; phase < phases; ++phase)
        {
            const WideVector taps = hn::LoadU(Wide(), m_taps[phase][k % every] + (slot + k) / every);
            sums[phase][k] = hn::Add(sums[phase][k], hn::Mul(samples, taps));
        }
    }

    const float* const m_newest;
    const std::size_t m_slot;
    const std::size_t m_length;
    const float* m_taps[phases][every];
};

HWY_INLINE void give(const float* results, std::size_t count, float* out, std::size_t step)
{
#pragma GCC unroll 8
    for (std::size_t i = 0; i < count; ++i)
        out[i * step] = results[i];
}

/// For every `every` samples an output of each phase, one after the other. Frames that are left over at the
/// end are not touched.
/// @param late  how far the index has stepped down when the dot product is taken
template<std::size_t every, std::size_t phases>
HWY_INLINE void sumRows(SRing& ring, const float* const (&taps)[phases], std::size_t late, SConstColumn in,
                        SColumn out, std::size_t frames, float scale)
{
    using Row = CRow<every, phases>;
    using Turns = std::make_index_sequence<Row::kSamples>;
    HWY_ALIGN_MAX float results[phases][kMaxChunk / every];
    const std::size_t wanted = frames / every;
    for (std::size_t done = 0; done < wanted;)
    {
        const std::size_t outputs = std::min((wanted - done + phases - 1) / phases, kMaxChunk / every);
        std::size_t slot = static_cast<std::size_t>(ring.index);
        CHistory history(ring);
        history.take(ring, in.samples + done / phases * every * in.stride, in.stride, outputs * every,
                     (kWideLanes - outputs % kWideLanes) % kWideLanes * every);
        history.settle(ring, outputs * every);
        float* newest = history.at(slot);
        for (std::size_t i = 0; i < outputs; i += kWideLanes)
        {
            const std::size_t position = (slot >= late ? slot : slot + ring.length) - late;
            if constexpr (kCopies > 1)
                history.template mixRow<every>(newest, Turns());
            WideVector sums[phases];
            Row(newest, slot, ring.length, position, taps).sum(sums);
            for (std::size_t phase = 0; phase < phases; ++phase)
                hn::Store(hn::Mul(sums[phase], hn::Set(Wide(), scale)), Wide(), results[phase] + i);
            if constexpr (kCopies > 1)
                history.settleRow(newest, Turns());
            newest -= Row::kSamples * kCopies;
            slot = (slot >= Row::kSamples ? slot : slot + ring.length) - Row::kSamples;
        }
        // The last output may lack its last phases.
        for (std::size_t phase = 0; phase < phases && done < wanted; ++phase, ++done)
            give(results[phase], std::min(outputs, (wanted - done + phases - 1) / phases),
                 out.samples + done * out.stride, phases * out.stride);
        done += (outputs - 1) * phases;
    }
}

HWY_INLINE float dotAt(const SRing& ring, const float* const banks[4])
{
    const auto position = static_cast<unsigned>(ring.index);
    return ringDot(banks[position & 3] + (ring.length - (position & ~3U)) % ring.length, ring.samples,
                   ring.length);
}

HWY_INLINE void write(SRing& ring, float sample)
{
    ring.samples[ring.index] = sample;
}

HWY_INLINE void stepDown(SRing& ring)
{
    ring.index = ring.index == 0 ? static_cast<int>(ring.length) - 1 : ring.index - 1;
}

HWY_NOINLINE void ringFilter(SRing& ring, const float* const banks[4], SConstColumn in, SColumn out,
                             unsigned frames, float scale)
{
    if (CRow<1, 1>::fits(ring))
        return sumRows<1, 1>(ring, {banks[0]}, 0, in, out, frames, scale);
    for (std::size_t i = 0; i < frames; ++i)
    {
        write(ring, in.samples[i * in.stride]);
        out.samples[i * out.stride] = dotAt(ring, banks) * scale;
        stepDown(ring);
    }
}

/// @return the frames that are done, all that make an output, or none if the ring does not fit
template<std::size_t ratio>
HWY_INLINE std::size_t decimateRows(SRing& ring, const float* bank, SConstColumn in, SColumn out,
                                    std::size_t frames)
{
    if (!CRow<ratio, 1>::fits(ring))
        return 0;
    sumRows<ratio, 1>(ring, {bank + spacedTapsStart(ring.length)}, 0, in, out, frames, 1.0F);
    return frames - frames % ratio;
}

HWY_NOINLINE void ringDecimate(SRing& ring, const float* const banks[4], unsigned ratio, SConstColumn in,
                               SColumn out, unsigned frames)
{
    std::size_t done = 0;
    if (ratio == 2)
        done = decimateRows<2>(ring, banks[0], in, out, frames);
    else if (ratio == 4)
        done = decimateRows<4>(ring, banks[0], in, out, frames);
    for (; done < frames; ++done)
    {
        write(ring, in.samples[done * in.stride]);
        if (done % ratio == ratio - 1)
            out.samples[done / ratio * out.stride] = dotAt(ring, banks);
        stepDown(ring);
    }
}

HWY_NOINLINE void ringInterpolate(SRing& ring, const float* const* banks, unsigned ratio, SConstColumn in,
                                  SColumn out, unsigned frames, float scale)
{
    if (ratio == 2 && CRow<1, 2>::fits(ring))
        return sumRows<1, 2>(ring, {banks[0], banks[4]}, 1, in, out, frames, scale);
    if (ratio == 4 && CRow<1, 4>::fits(ring))
        return sumRows<1, 4>(ring, {banks[0], banks[4], banks[8], banks[12]}, 1, in, out, frames, scale);
    for (std::size_t i = 0; i < frames; ++i)
    {
        const std::size_t phase = i % ratio;
        if (phase == 0)
        {
            write(ring, in.samples[i / ratio * in.stride]);
            stepDown(ring);
        }
        out.samples[i * out.stride] = dotAt(ring, banks + 4 * phase) * scale;
    }
}

} // namespace HWY_NAMESPACE
} // namespace korvodsp
HWY_AFTER_NAMESPACE();

#endif
