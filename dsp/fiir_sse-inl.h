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
#include <cstdint>
#include <utility>

#include "dsp/denormals.h"
#include "dsp/fiir_filter.h"
#include "dsp/ring_fir-inl.h"
#include "dsp/section_bank-inl.h"
#include "dsp/tiny_sections-inl.h"

HWY_BEFORE_NAMESPACE();
namespace korvodsp {
namespace HWY_NAMESPACE {

/// The next `frames` samples of a bank for themselves.
template<std::size_t... v>
HWY_INLINE void runSections(SSectionBank& bank, std::size_t frames, std::index_sequence<v...>)
{
    static constexpr void (*kRun[])(SSectionBank&, std::size_t) = {&runSections<v + 1, EOutputs::Give>...};
    static constexpr void (*kRunSilence[])(SSectionBank&, std::size_t) = {&runSilence<v + 1>...};
    (bank.silent ? kRunSilence : kRun)[bank.vectors() - 1](bank, frames);
}

HWY_INLINE void runSections(SSectionBank& bank, std::size_t frames)
{
    if (bank.groups != 0)
        runSections(bank, frames, std::make_index_sequence<kBankVectors>());
}

/// A run of the sections that are not tiny, after that of those which are.
template<std::size_t... v>
HWY_INLINE void runRest(SSectionBank& bank, std::size_t frames, std::index_sequence<v...>)
{
    static constexpr void (*kRun[])(SSectionBank&, std::size_t) = {&runSections<v + 1, EOutputs::AddTo>...};
    kRun[bank.vectors() - 1](bank, frames);
}

/// The end of a run in which the bank was silent.
HWY_NOINLINE inline void endSilence(SSectionBank& bank, std::size_t frames)
{
    const bool stayedTiny = finishTinyOutputs(bank);
    bank.done = 0;
    if (!stayedTiny)
    {
        forgetTiny(bank);
        bank.silent = false;
        return runSections(bank, frames);
    }
    if (!bank.tiny.all)
        runRest(bank, frames, std::make_index_sequence<kBankVectors>());
    giveTinyBack(bank);
}

template<class Companion>
HWY_INLINE void sumWith(SRun& run, typename Companion::Work& work)
{
    if (run.frames >= kMinSpaced * kRow)
        sumSpaced<Companion>(run, work);
    else
        sumAdjacent<Companion>(run, work);
}

/// The sums of a run, with a bank's sections run along: they wait for themselves most of the time.
template<std::size_t... v>
HWY_INLINE void sumWithSections(SRun& run, SSectionBank& bank, std::index_sequence<v...>)
{
    static constexpr void (*kSum[])(SRun&, SSectionBank&) = {&sumWith<CSectionSteps<v + 1>>...};
    static constexpr void (*kSumSilence[])(SRun&, SSectionBank&) = {&sumWith<CTinySteps<v + 1>>...};
    (bank.silent ? kSumSilence : kSum)[bank.vectors() - 1](run, bank);
}

/// Vectors of sections for which there are registers beside those of the FIR sums; measured.
constexpr std::size_t kVectorsAlong = HWY_TARGET == HWY_AVX2 ? 2 : kBankVectors;

HWY_INLINE void sumSlots(SRun& run, SSectionBank& bank)
{
    if (bank.groups != 0 && bank.vectors() <= kVectorsAlong)
        return sumWithSections(run, bank, std::make_index_sequence<kVectorsAlong>());
    CNoSteps::Work none;
    sumWith<CNoSteps>(run, none);
    runSections(bank, run.frames);
}

/// A run as its sections see it.
struct SSectionRun
{
    float inputs[1 + kMaxRun];              ///< behind the one before the run
    HWY_ALIGN_MAX float lanes[kLanesOfRun]; ///< of the sums, placed by lanesOf()
    std::size_t frames;
    bool silent;

    float* delayed() { return inputs + 1; }
};

/// Whether nothing comes in and denormals are worth a way of their own.
HWY_INLINE bool isSilent(const SSectionRun& sections)
{
    if (sections.inputs[sections.frames] != 0.0F)
        return false;
    std::uint32_t bits = 0;
    for (std::size_t i = 0; i < sections.frames; ++i)
        bits |= loadAs<std::uint32_t>(sections.inputs + i);
    return (bits & 0x7FFFFFFF) == 0 && keepsDenormals();
}

HWY_INLINE void beginBank(SSectionBank& bank, SSectionRun& sections)
{
    for (std::size_t g = 0; g < bank.groups; ++g)
        clearLastLanes(bank.outputs[g], sections.frames);
    bank.delayed = sections.delayed();
    bank.done = 0;
    bank.silent = sections.silent && takeTiny(bank);
}

/// Adds what the bank gives, when it is through.
HWY_INLINE void endBank(SSectionBank& bank, SSectionRun& sections, bool isFirst)
{
    if (bank.silent && bank.tiny.all && isFirst && addTinyOutputs(bank, sections.lanes, sections.frames))
        return giveTinyBack(bank);
    if (bank.silent)
        endSilence(bank, sections.frames);
    addOutputs(bank, isFirst, sections.lanes, sections.frames);
}

/// All groups behind the first bank, one bank after the other over the whole run, in the memory of the first.
HWY_NOINLINE inline void addFurtherBanks(FIIR_FILTER_tag& filter, SSectionBank& bank, SSectionRun& sections)
{
    storeBank(bank, filter.cookedSections);
    for (std::size_t done = kGroupsAtOnce; done < filter.numCookedGroups; done += kGroupsAtOnce)
    {
        float* cooked = filter.cookedSections + done * kFloatsPerGroup;
        loadBank(bank, cooked, std::min(filter.numCookedGroups - done, kGroupsAtOnce));
        beginBank(bank, sections);
        runSections(bank, sections.frames);
        endBank(bank, sections, false);
        storeBank(bank, cooked);
    }
    loadBank(bank, filter.cookedSections, kGroupsAtOnce);
}

/// The input is there.
HWY_INLINE void beginSections(SSectionRun& sections, FIIR_FILTER_tag& filter, SSectionBank& bank)
{
    sections.inputs[0] = filter.prevInput;
    filter.prevInput = sections.inputs[sections.frames];
    sections.silent = isSilent(sections);
    beginBank(bank, sections);
}

HWY_INLINE void endSections(SSectionRun& sections, FIIR_FILTER_tag& filter, SSectionBank& bank)
{
    endBank(bank, sections, true);
    if (filter.numCookedGroups > kGroupsAtOnce)
        addFurtherBanks(filter, bank, sections);
}

/// The sections' part of the results of kWideLanes samples.
HWY_INLINE WideVector finishSections(const SSectionRun& sections, std::size_t first)
{
    WideVector lanes[4];
    for (std::size_t v = 0; v < 4; ++v)
        lanes[v] = hn::Load(Wide(), sections.lanes + 4 * first + v * kWideLanes);
    return sumLanes(lanes);
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
        hn::Store(sum, four, run.sums[0] + lanesOf(i));
        for (std::size_t quarter = 1; quarter < kRow / 4; ++quarter)
            hn::Store(hn::Zero(four), four, run.sums[quarter] + lanesOf(i));
        slot = (slot == 0 ? run.length : slot) - 1;
    }
    return slot;
}

/// Filters one run; run.newest and run.frames are set.
/// @param bank  the first bank of sections
HWY_INLINE void filterRun(FIIR_FILTER_tag& filter, SRun& run, SSectionBank& bank, const float* samples,
                          std::size_t stride, float* results)
{
    SSectionRun sections;
    sections.frames = run.frames;
    const bool hasSections = bank.groups != 0;
    std::size_t next = 0;
    for (float* lanes : run.sums)
        clearLastLanes(lanes, run.frames);
    if (run.length < kRow)
    {
        next = passSmallRing(run, filter.numTaps, samples, stride, sections.delayed());
        if (hasSections)
            beginSections(sections, filter, bank);
        runSections(bank, run.frames);
    }
    else
    {
        takeSamples(run, samples, stride);
        if (hasSections)
        {
            takeDelayed(run, filter.numTaps, sections.delayed());
            beginSections(sections, filter, bank);
        }
        sumSlots(run, bank);
        writeSamples(run);
        next = slotAfter(run);
    }
    filter.delayPos = static_cast<std::uint32_t>(next);
    if (hasSections)
        endSections(sections, filter, bank);
    for (std::size_t i = 0; i < run.frames; i += kWideLanes)
    {
        const WideVector sums = finishSums(run, i);
        hn::Store(hasSections ? hn::Add(finishSections(sections, i), sums) : sums, Wide(), results + i);
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
    HWY_ALIGN_MAX float results[kMaxRun];
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
