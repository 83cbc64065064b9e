// SPDX-License-Identifier: GPL-3.0-or-later
// The vector kernel of a filter; compiled once per instruction set. Its FIR half is in ring_fir-inl.h.

#if defined(KORVO_DSP_FIIR_SSE_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef KORVO_DSP_FIIR_SSE_INL_H_
#undef KORVO_DSP_FIIR_SSE_INL_H_
#else
#define KORVO_DSP_FIIR_SSE_INL_H_
#endif

#include <algorithm>
#include <cstddef>
#include <utility>

#include "dsp/denormals.h"
#include "dsp/fiir_filter.h"
#include "dsp/ring_fir-inl.h"
#include "dsp/section_bank-inl.h"
#include "dsp/tiny_sections-inl.h"

HWY_BEFORE_NAMESPACE();
namespace korvodsp {
namespace HWY_NAMESPACE {

constexpr std::size_t kGroupsPerVector = kWideLanes / kSectionsPerGroup;
/// Runs a bank of `groups` groups over at most kGroup samples.
template<std::size_t groups>
class CSectionSteps
{
public:
    HWY_INLINE explicit CSectionSteps(const SSectionBank& bank) { load(bank, Index()); }

    HWY_INLINE void run(SSectionBank& bank, std::size_t frames, SBankOutputs& outputs)
    {
        WideVector previous = hn::Set(Wide(), bank.delayed[-1]);
        for (std::size_t i = 0; i < frames; ++i)
        {
            const WideVector x = hn::Set(Wide(), bank.delayed[i]);
            step(x, previous, outputs.rows[i], Index());
            previous = x;
        }
        storeState(bank, Index());
    }

private:
    static constexpr std::size_t kVectors = (groups + kGroupsPerVector - 1) / kGroupsPerVector;
    using Index = std::make_index_sequence<kVectors>;
    using Vectors = WideVector[kVectors];

    template<std::size_t... v>
    HWY_INLINE void load(const SSectionBank& bank, std::index_sequence<v...>)
    {
        ((m_b0[v] = hn::Load(Wide(), bank.fields[SSectionBank::kB0] + v * kWideLanes)), ...);
        ((m_b1[v] = hn::Load(Wide(), bank.fields[SSectionBank::kB1] + v * kWideLanes)), ...);
        ((m_a1[v] = hn::Load(Wide(), bank.fields[SSectionBank::kA1] + v * kWideLanes)), ...);
        ((m_a2[v] = hn::Load(Wide(), bank.fields[SSectionBank::kA2] + v * kWideLanes)), ...);
        ((m_y1[v] = hn::Load(Wide(), bank.fields[SSectionBank::kY1] + v * kWideLanes)), ...);
        ((m_y2[v] = hn::Load(Wide(), bank.fields[SSectionBank::kY2] + v * kWideLanes)), ...);
    }

    template<std::size_t... v>
    HWY_INLINE void storeState(SSectionBank& bank, std::index_sequence<v...>) const
    {
        (hn::Store(m_y1[v], Wide(), bank.fields[SSectionBank::kY1] + v * kWideLanes), ...);
        (hn::Store(m_y2[v], Wide(), bank.fields[SSectionBank::kY2] + v * kWideLanes), ...);
    }

    template<std::size_t... v>
    HWY_INLINE void step(WideVector x, WideVector previous, float* outputs, std::index_sequence<v...>)
    {
        (stepVector<v>(x, previous, outputs + v * kWideLanes), ...);
    }

    template<std::size_t v>
    HWY_INLINE void stepVector(WideVector x, WideVector previous, float* outputs)
    {
        const WideVector forward = hn::Add(hn::Mul(m_b0[v], x), hn::Mul(m_b1[v], previous));
        const WideVector back = hn::Add(hn::Mul(m_a1[v], m_y1[v]), hn::Mul(m_a2[v], m_y2[v]));
        m_y2[v] = m_y1[v];
        m_y1[v] = hn::Sub(forward, back);
        hn::Store(m_y1[v], Wide(), outputs);
    }

    Vectors m_b0, m_b1, m_a1, m_a2, m_y1, m_y2;
};

template<std::size_t... g>
HWY_INLINE void addInOrder(const float* outputs, float* sums, std::index_sequence<g...>)
{
    FourVector sum = hn::Load(Four(), sums);
    ((sum = hn::Add(sum, hn::Load(Four(), outputs + g * kSectionsPerGroup))), ...);
    hn::Store(sum, Four(), sums);
}

/// In a loop of its own, by way of memory: reading groups back costs less than taking vectors apart.
template<std::size_t groups>
HWY_INLINE void addOutputs(const SBankOutputs& outputs, float* sums, std::size_t frames)
{
    for (std::size_t i = 0; i < frames; ++i)
        addInOrder(outputs.rows[i], sums + i * kSectionsPerGroup, std::make_index_sequence<groups>());
}

template<std::size_t groups>
HWY_NOINLINE void runSections(SSectionBank& bank, std::size_t frames)
{
    SBankOutputs outputs;
    CSectionSteps<groups>(bank).run(bank, frames, outputs);
    addOutputs<groups>(outputs, bank.sums, frames);
}

/// The same over silence, for a bank some of whose sections may have rung down to denormals.
template<std::size_t groups>
HWY_NOINLINE void runSilence(SSectionBank& bank, std::size_t frames)
{
    constexpr std::size_t kLanes = (groups * kSectionsPerGroup + kTinyLanes - 1) / kTinyLanes * kTinyLanes;
    STinySections tiny;
    if (!chooseTiny(bank, kLanes, tiny) || !runTiny(bank, kLanes, frames, tiny))
        return runSections<groups>(bank, frames);
    SBankOutputs outputs;
    if (!tiny.all)
    {
        hideTiny(bank, kLanes, tiny);
        CSectionSteps<groups>(bank).run(bank, frames, outputs);
    }
    mergeTiny(tiny, kLanes, frames, bank, outputs);
    addOutputs<groups>(outputs, bank.sums, frames);
}

template<std::size_t... g>
HWY_INLINE void runSections(SSectionBank& bank, std::size_t frames, std::index_sequence<g...>)
{
    static constexpr void (*kRun[])(SSectionBank&, std::size_t) = {&runSections<g + 1>...};
    static constexpr void (*kRunSilence[])(SSectionBank&, std::size_t) = {&runSilence<g + 1>...};
    (bank.silent ? kRunSilence : kRun)[bank.groups - 1](bank, frames);
    bank.delayed += frames;
    bank.sums += frames * kSectionsPerGroup;
}

/// Lets the bank run on by `frames` samples, kGroup at a time: what is left over waits, since every start
/// costs the loading of all coefficients. A bank without groups does nothing.
HWY_INLINE void advance(SSectionBank& bank, std::size_t frames)
{
    if (bank.groups == 0)
        return;
    for (bank.waiting += frames; bank.waiting >= kGroup; bank.waiting -= kGroup)
        runSections(bank, kGroup, std::make_index_sequence<kGroupsAtOnce>());
}

/// Runs what advance() has left over.
HWY_INLINE void catchUp(SSectionBank& bank)
{
    if (bank.waiting != 0)
        runSections(bank, bank.waiting, std::make_index_sequence<kGroupsAtOnce>());
    bank.waiting = 0;
}

/// All groups behind the first bank, one bank after the other over the whole run.
HWY_INLINE void addFurtherBanks(FIIR_FILTER_tag& filter, const float* delayed, float* sums,
                                std::size_t frames, bool silent)
{
    SSectionBank bank;
    bank.silent = silent;
    for (std::size_t done = kGroupsAtOnce; done < filter.numCookedGroups; done += kGroupsAtOnce)
    {
        float* cooked = filter.cookedSections + done * kFloatsPerGroup;
        loadBank(bank, cooked, std::min(filter.numCookedGroups - done, kGroupsAtOnce));
        bank.delayed = delayed;
        bank.sums = sums;
        advance(bank, frames);
        catchUp(bank);
        storeBank(bank, cooked);
    }
}

/// Adds the lanes of the sections' sums to `results`.
HWY_INLINE void finishSections(const float* sums, float* results, std::size_t frames)
{
    const Four four;
    for (std::size_t i = 0; i < frames; i += 4)
    {
        const float* row = sums + i * kSectionsPerGroup;
        const FourVector sections = sumsOfLanes(hn::Load(four, row), hn::Load(four, row + 4),
                                                hn::Load(four, row + 8), hn::Load(four, row + 12));
        hn::Store(hn::Add(sections, hn::Load(four, results + i)), four, results + i);
    }
}

/// The sections' input over a run: x(t-n), as the ring held it when its turn came.
HWY_INLINE void takeDelayed(const SRun& run, std::size_t taps, float* delayed)
{
    const std::size_t oldestSlot = run.newest + taps; // may lie past the ring's end, then it wraps
    const std::size_t fromRing = std::min(run.frames, taps);
    const std::size_t wrapped =
        oldestSlot >= run.length ? std::min(oldestSlot + 1 - run.length, fromRing) : 0;
    copyReversed(run.ring + (oldestSlot + 1 - wrapped - run.length * (wrapped != 0)), wrapped, delayed);
    copyReversed(run.ring + (oldestSlot + 1 - fromRing), fromRing - wrapped, delayed + wrapped);
    if (run.frames > taps)
        copyReversed(run.fresh(run.newest + 1 + taps - run.frames), run.frames - taps, delayed + taps);
}

HWY_INLINE void giveResults(const float* results, std::size_t frames, float* out, std::size_t stride)
{
    if (stride == 1)
    {
        std::copy_n(results, frames, out);
        return;
    }
    for (std::size_t i = 0; i < frames; ++i)
        out[i * stride] = results[i];
}

/// The whole way of a run through a ring of less than a block, which wraps too often for runs: one sample at
/// a time.
/// @return the slot of the sample after the run
HWY_INLINE std::size_t passSmallRing(SRun& run, std::size_t taps, const float* samples, std::size_t stride,
                                     float* delayed)
{
    const Four four;
    std::size_t slot = run.newest;
    for (std::size_t i = 0; i < run.frames; ++i)
    {
        delayed[i] = run.ring[slot + taps < run.length ? slot + taps : slot + taps - run.length];
        run.ring[slot] = samples[i * stride];
        const float* rotated = run.alignedTapsFor(slot);
        FourVector sum = hn::Zero(four);
        for (std::size_t j = 0; j < run.length; j += 4)
            sum = hn::Add(sum, hn::Mul(hn::Load(four, run.ring + j), hn::Load(four, rotated + j)));
        float* row = run.sums + i * kRow;
        hn::Store(sum, four, row);
        std::fill_n(row + 4, kRow - 4, 0.0F);
        slot = (slot == 0 ? run.length : slot) - 1;
    }
    return slot;
}

HWY_INLINE void startSections(FIIR_FILTER_tag& filter, SSectionBank& bank, float* delayed, float* sums,
                              std::size_t frames)
{
    delayed[-1] = filter.prevInput;
    filter.prevInput = delayed[static_cast<std::ptrdiff_t>(frames) - 1];
    std::fill_n(sums, (frames + 3) * kSectionsPerGroup, 0.0F);
    bank.delayed = delayed;
    bank.sums = sums;
    bank.silent =
        std::all_of(delayed - 1, delayed + frames, [](float x) { return x == 0.0F; }) && keepsDenormals();
}

/// Filters one run; run.newest and run.frames are set.
/// @param bank  the first bank of sections
HWY_INLINE void filterRun(FIIR_FILTER_tag& filter, SRun& run, SSectionBank& bank, const float* samples,
                          std::size_t stride, float* results)
{
    HWY_ALIGN_MAX float sectionSums[(kMaxRun + 3) * kSectionsPerGroup];
    float inputs[1 + kMaxRun];
    float* delayed = inputs + 1;
    const bool hasSections = bank.groups != 0;
    if (run.length < kRow)
    {
        filter.delayPos =
            static_cast<std::uint32_t>(passSmallRing(run, filter.numTaps, samples, stride, delayed));
        if (hasSections)
            startSections(filter, bank, delayed, sectionSums, run.frames);
        advance(bank, run.frames);
    }
    else
    {
        takeSamples(run, samples, stride);
        if (hasSections)
        {
            takeDelayed(run, filter.numTaps, delayed);
            startSections(filter, bank, delayed, sectionSums, run.frames);
        }
        sumSlots(run, [&bank](std::size_t outputs) HWY_ATTR { advance(bank, outputs); });
        writeSamples(run);
        filter.delayPos = static_cast<std::uint32_t>(slotAfter(run));
    }
    finishSums(run, results);
    if (hasSections)
    {
        catchUp(bank);
        addFurtherBanks(filter, delayed, sectionSums, run.frames, bank.silent);
        finishSections(sectionSums, results, run.frames);
    }
}

HWY_NOINLINE void FIIR_SSE(void* handle, const float* in, float* out, unsigned frames, unsigned channel,
                           unsigned stride)
{
    FIIR_FILTER_tag& filter = *static_cast<FIIR_FILTER_tag*>(handle);
    SRun run;
    run.banks = filter.firCoefs;
    run.ring = filter.delayLine;
    run.length = filter.paddedTaps;
    SSectionBank bank;
    loadBank(bank, filter.cookedSections, std::min<std::size_t>(filter.numCookedGroups, kGroupsAtOnce));
    HWY_ALIGN_MAX float results[kMaxRun + 3];
    in += channel;
    out += channel;
    for (std::size_t left = frames; left > 0; left -= run.frames)
    {
        beginRun(run, filter.delayPos, left);
        if (run.length < kRow)
            run.frames = std::min(left, kMaxRun);
        filterRun(filter, run, bank, in, stride, results);
        giveResults(results, run.frames, out, stride);
        in += run.frames * stride;
        out += run.frames * stride;
    }
    storeBank(bank, filter.cookedSections);
    filter.denormalBias = -filter.denormalBias;
}

} // namespace HWY_NAMESPACE
} // namespace korvodsp
HWY_AFTER_NAMESPACE();

#endif
