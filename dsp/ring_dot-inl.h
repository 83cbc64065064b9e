// SPDX-License-Identifier: GPL-3.0-or-later
// The passes of ring_dot.h; compiled once per instruction set.
//
// The rings of the multi-rate stage are short, so that a run of samples would end at their wrap all the time,
// and the sums across a vector would cost as much as the products. Here each lane of a vector is an output of
// its own: slot after slot of the ring is multiplied with the taps that meet it in a row of consecutive
// outputs, which lie side by side in the table, since a step in time is a step in the table. The sixteen
// running sums of an output are sixteen vectors, and they are added up without a sum across lanes. Each lane
// goes through the fixed order of summation.

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

/// Outputs of a row, one per lane.
constexpr std::size_t kRowOutputs = kWideLanes;
/// Running sums that are kept in registers at a time: those of a0 and a1, then those of a2 and a3.
constexpr std::size_t kHalfRow = kRow / 2;
/// Phases of an interpolator that are served in rows.
constexpr unsigned kMaxPhases = 4;
/// Longer rings go one sample at a time. No stage has one.
constexpr std::size_t kMaxRing = 256;

/// What a row of outputs sees in each slot of the ring. A row takes in `every` samples for each of its
/// outputs, the first of which goes to the ring's index.
template<std::size_t every>
class CRingView
{
public:
    static constexpr std::size_t kSamples = every * kRowOutputs;

    /// Whether a ring is long enough for no sample of a row to go where another one went.
    static bool canView(const SRing& ring) { return ring.length >= kSamples && ring.length <= kMaxRing; }

    HWY_INLINE explicit CRingView(const SRing& ring) : m_length(ring.length)
    {
        for (std::size_t slot = 0; slot < m_length; ++slot)
            hn::Store(hn::Set(Wide(), ring.samples[slot]), Wide(), m_seen[slot]);
    }

    /// Lets the next row take in `count` samples. Each is new to the outputs that come with it or after it,
    /// while those before see what was in its slot.
    HWY_INLINE void take(const SRing& ring, const float* samples, std::size_t stride, std::size_t count)
    {
        for (std::size_t turn = 0; turn < count; ++turn)
        {
            const std::size_t slot = slotOf(ring, turn);
            const auto older = hn::FirstN(Wide(), turn / every);
            m_fresh[turn] = samples[turn * stride];
            hn::Store(
                hn::IfThenElse(older, hn::Set(Wide(), ring.samples[slot]), hn::Set(Wide(), m_fresh[turn])),
                Wide(), m_seen[slot]);
        }
    }

    /// Moves them into the ring when the row is done, and steps its index down.
    HWY_INLINE void settle(SRing& ring, std::size_t count)
    {
        for (std::size_t turn = 0; turn < count; ++turn)
        {
            const std::size_t slot = slotOf(ring, turn);
            ring.samples[slot] = m_fresh[turn];
            hn::Store(hn::Set(Wide(), m_fresh[turn]), Wide(), m_seen[slot]);
        }
        ring.index = static_cast<int>(slotOf(ring, count));
    }

    HWY_INLINE WideVector in(std::size_t slot) const { return hn::Load(Wide(), m_seen[slot]); }
    std::size_t length() const { return m_length; }

private:
    static std::size_t slotOf(const SRing& ring, std::size_t turn)
    {
        const auto index = static_cast<std::size_t>(ring.index);
        return index >= turn ? index - turn : index + ring.length - turn;
    }

    HWY_ALIGN_MAX float m_seen[kMaxRing][kRowOutputs];
    std::size_t m_length;
    float m_fresh[kSamples];
};

/// The taps of one phase for rows whose outputs are `every` samples apart: each every-th tap side by side,
/// and the table so long that no row goes round its end.
template<std::size_t every>
class CTapTable
{
public:
    HWY_INLINE void fill(const float* bank, std::size_t length)
    {
        m_length = length;
        // The bank holds two periods, and `every` divides a period: each phase goes round in itself.
        const std::size_t period = length / every;
        for (std::size_t phase = 0; phase < every; ++phase)
        {
            float* const taps = m_taps[phase];
            for (std::size_t i = 0; i < 2 * period; ++i)
                taps[i] = bank[i * every + phase];
            // Another period's begin, wherever the row that starts in the last slot ends.
            std::copy_n(taps, period, taps + 2 * period);
        }
    }

    /// The taps that meet the slots in a row whose first output is taken at `position`.
    class CMeeting
    {
    public:
        HWY_INLINE CMeeting(const CTapTable& table, std::size_t position)
        {
            // The first output is taken when the last of its samples is in.
            for (std::size_t k = 0; k < every; ++k)
            {
                const std::size_t tap = table.m_length - position + every - 1 + k;
                m_first[k] = table.m_taps[tap % every] + tap / every;
            }
        }
        /// @param block  a multiple of `every`
        template<std::size_t k>
        HWY_INLINE WideVector with(std::size_t block) const
        {
            return hn::LoadU(Wide(), m_first[k % every] + (block + k) / every);
        }

    private:
        const float* m_first[every];
    };

private:
    std::size_t m_length;
    float m_taps[every][3 * kMaxRing / every];
};

/// One product for each of as many sums, for as many slots from `slot` on.
template<class View, class Meeting, std::size_t... k>
HWY_INLINE void addProducts(WideVector (&sums)[kHalfRow], const View& view, const Meeting& taps,
                            std::size_t slot, std::index_sequence<k...>)
{
    ((sums[k] = hn::Add(sums[k], hn::Mul(view.in(slot + k), taps.template with<k>(slot)))), ...);
}

/// The four lanes of a0 + a1, or of a2 + a3 from half a block on.
template<std::size_t half, class View, class Meeting>
HWY_INLINE void sumHalves(const View& view, const Meeting& taps, WideVector (&lanes)[4])
{
    const std::size_t rest = view.length() & ~(kRow - 1);
    WideVector sums[kHalfRow];
    for (WideVector& sum : sums)
        sum = hn::Zero(Wide());
    for (std::size_t slot = half; slot < rest; slot += kRow)
        addProducts(sums, view, taps, slot, std::make_index_sequence<kHalfRow>());
    for (std::size_t slot = rest; half == 0 && slot < view.length(); slot += 4)
        addProducts(sums, view, taps, slot, std::make_index_sequence<4>()); // all of it into a0
    for (std::size_t lane = 0; lane < 4; ++lane)
        lanes[lane] = hn::Add(sums[lane], sums[4 + lane]);
}

/// The dot products of a row of outputs.
template<class View, class Meeting>
HWY_INLINE WideVector sumRow(const View& view, const Meeting& taps)
{
    WideVector lower[4];
    WideVector upper[4];
    sumHalves<0>(view, taps, lower);
    sumHalves<kHalfRow>(view, taps, upper);
    WideVector sum = hn::Add(lower[0], upper[0]);
    for (std::size_t lane = 1; lane < 4; ++lane)
        sum = hn::Add(sum, hn::Add(lower[lane], upper[lane]));
    return sum;
}

/// row[i] * scale, one every `step` floats.
HWY_INLINE void giveScaled(WideVector row, std::size_t count, float scale, float* out, std::size_t step)
{
    HWY_ALIGN_MAX float results[kRowOutputs];
    hn::Store(hn::Mul(row, hn::Set(Wide(), scale)), Wide(), results);
    for (std::size_t i = 0; i < count; ++i)
        out[i * step] = results[i];
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

HWY_INLINE std::size_t filterRows(SRing& ring, const float* bank, SConstColumn in, SColumn out,
                                  std::size_t frames, float scale)
{
    using View = CRingView<1>;
    if (!View::canView(ring))
        return 0;
    View view(ring);
    CTapTable<1> taps;
    taps.fill(bank, ring.length);
    for (std::size_t done = 0; done < frames; done += kRowOutputs)
    {
        const std::size_t count = std::min(frames - done, kRowOutputs);
        const CTapTable<1>::CMeeting meeting(taps, static_cast<std::size_t>(ring.index));
        view.take(ring, in.samples + done * in.stride, in.stride, count);
        giveScaled(sumRow(view, meeting), count, scale, out.samples + done * out.stride, out.stride);
        view.settle(ring, count);
    }
    return frames;
}

HWY_NOINLINE void ringFilter(SRing& ring, const float* const banks[4], SConstColumn in, SColumn out,
                             unsigned frames, float scale)
{
    for (std::size_t i = filterRows(ring, banks[0], in, out, frames, scale); i < frames; ++i)
    {
        write(ring, in.samples[i * in.stride]);
        out.samples[i * out.stride] = dotAt(ring, banks) * scale;
        stepDown(ring);
    }
}

/// @return the frames that are done: all but those that make no output any more
template<std::size_t every>
HWY_INLINE std::size_t decimateRows(SRing& ring, const float* bank, SConstColumn in, SColumn out,
                                    std::size_t frames)
{
    using View = CRingView<every>;
    if (!View::canView(ring))
        return 0;
    View view(ring);
    CTapTable<every> taps;
    taps.fill(bank, ring.length);
    std::size_t done = 0;
    while (frames - done >= every)
    {
        const std::size_t outputs = std::min((frames - done) / every, kRowOutputs);
        const typename CTapTable<every>::CMeeting meeting(taps, static_cast<std::size_t>(ring.index));
        view.take(ring, in.samples + done * in.stride, in.stride, outputs * every);
        giveScaled(sumRow(view, meeting), outputs, 1.0F, out.samples + done / every * out.stride, out.stride);
        view.settle(ring, outputs * every);
        done += outputs * every;
    }
    return done;
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

/// A row for each phase over the same samples.
HWY_INLINE std::size_t interpolateRows(SRing& ring, const float* const* banks, unsigned ratio,
                                       SConstColumn in, SColumn out, std::size_t frames, float scale)
{
    using View = CRingView<1>;
    if (!View::canView(ring) || ratio > kMaxPhases)
        return 0;
    View view(ring);
    CTapTable<1> taps[kMaxPhases];
    for (unsigned phase = 0; phase < ratio; ++phase)
        taps[phase].fill(banks[4 * phase], ring.length);
    const std::size_t samples = (frames + ratio - 1) / ratio;
    for (std::size_t done = 0; done < samples; done += kRowOutputs)
    {
        const std::size_t count = std::min(samples - done, kRowOutputs);
        // The index has stepped down before the dot product is taken.
        const auto index = static_cast<std::size_t>(ring.index);
        const std::size_t position = (index == 0 ? ring.length : index) - 1;
        view.take(ring, in.samples + done * in.stride, in.stride, count);
        for (unsigned phase = 0; phase < ratio; ++phase)
        {
            const std::size_t from = done * ratio + phase;
            const std::size_t wanted = from < frames ? (frames - from + ratio - 1) / ratio : 0;
            giveScaled(sumRow(view, CTapTable<1>::CMeeting(taps[phase], position)), std::min(count, wanted),
                       scale, out.samples + from * out.stride, std::size_t{ratio} * out.stride);
        }
        view.settle(ring, count);
    }
    return frames;
}

HWY_NOINLINE void ringInterpolate(SRing& ring, const float* const* banks, unsigned ratio, SConstColumn in,
                                  SColumn out, unsigned frames, float scale)
{
    for (std::size_t i = interpolateRows(ring, banks, ratio, in, out, frames, scale); i < frames; ++i)
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
