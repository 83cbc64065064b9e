// SPDX-License-Identifier: GPL-3.0-or-later
// A bank of sections as the vector kernel runs it; compiled once per instruction set.

#if defined(KORVO_DSP_SECTION_BANK_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef KORVO_DSP_SECTION_BANK_INL_H_
#undef KORVO_DSP_SECTION_BANK_INL_H_
#else
#define KORVO_DSP_SECTION_BANK_INL_H_
#endif

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "dsp/fiir_filter.h"
#include "dsp/wide_vectors-inl.h"

HWY_BEFORE_NAMESPACE();
namespace korvodsp {
namespace HWY_NAMESPACE {

/// Groups of sections that run side by side, with their state in registers.
constexpr std::size_t kGroupsAtOnce = HWY_TARGET == HWY_AVX3 ? 12 : HWY_TARGET == HWY_AVX2 ? 8 : 4;
constexpr std::size_t kBankLanes = kGroupsAtOnce * kSectionsPerGroup;
constexpr std::size_t kGroupsPerVector = kWideLanes / kSectionsPerGroup;
constexpr std::size_t kBankVectors = kGroupsAtOnce / kGroupsPerVector;

/// The sections of a bank that are on their way through silence in tiny_sections-inl.h.
struct STinySections
{
    HWY_ALIGN_MAX std::int32_t chosen[kBankLanes]; ///< all bits set for those
    HWY_ALIGN_MAX double a1[kBankLanes];
    HWY_ALIGN_MAX double minusA2[kBankLanes];
    HWY_ALIGN_MAX double y1[kBankLanes];
    HWY_ALIGN_MAX double y2[kBankLanes];
    HWY_ALIGN_MAX float keptY1[kBankLanes]; ///< of the whole bank as the run began
    HWY_ALIGN_MAX float keptY2[kBankLanes];
    bool all; ///< no section of the bank is left
};

/// Up to kGroupsAtOnce cooked groups, rearranged so that groups lie side by side, and their way through a
/// run.
struct SSectionBank
{
    enum EField : std::size_t
    {
        kB0,
        kB1,
        kA1,
        kA2,
        kY1,
        kY2,
        kFields
    };
    HWY_ALIGN_MAX float fields[kFields][kBankLanes];
    HWY_ALIGN_MAX float outputs[kGroupsAtOnce][kLanesOfRun]; ///< of each group, placed by lanesOf()
    STinySections tiny;
    std::size_t groups;
    const float* delayed; ///< input of the run; delayed[-1] is the one before
    std::size_t done;     ///< samples of the run
    bool silent;          ///< there are sections in `tiny` throughout the run, and nothing comes in

    std::size_t vectors() const { return (groups + kGroupsPerVector - 1) / kGroupsPerVector; }
};

HWY_INLINE void loadBank(SSectionBank& bank, const float* cooked, std::size_t groups)
{
    bank.groups = groups;
    for (std::size_t field = 0; field < SSectionBank::kFields; ++field)
    {
        float* lanes = bank.fields[field];
        for (std::size_t g = 0; g < groups; ++g)
            std::copy_n(cooked + g * kFloatsPerGroup + field * kSectionsPerGroup, kSectionsPerGroup,
                        lanes + g * kSectionsPerGroup);
        std::fill(lanes + groups * kSectionsPerGroup, lanes + bank.vectors() * kWideLanes, 0.0F);
    }
}

HWY_INLINE void storeBank(const SSectionBank& bank, float* cooked)
{
    for (const std::size_t field : {SSectionBank::kY1, SSectionBank::kY2})
    {
        for (std::size_t g = 0; g < bank.groups; ++g)
            std::copy_n(bank.fields[field] + g * kSectionsPerGroup, kSectionsPerGroup,
                        cooked + g * kFloatsPerGroup + field * kSectionsPerGroup);
    }
}

/// Adds the outputs of the groups, one after the other, to the lanes of a run, or to zero for the first bank.
/// @param load  takes a vector of them from their place
template<class Load>
HWY_INLINE void addOutputs(const SSectionBank& bank, bool isFirst, float* lanes, std::size_t frames,
                           const Load& load)
{
    for (std::size_t i = 0; i < lanesFor(frames); i += 4 * kWideLanes)
    {
        WideVector sums[4]; // side by side, for each waits for its last addition
        for (std::size_t v = 0; v < 4; ++v)
            sums[v] = isFirst ? hn::Zero(Wide()) : hn::Load(Wide(), lanes + i + v * kWideLanes);
        for (std::size_t g = 0; g < bank.groups; ++g)
            for (std::size_t v = 0; v < 4; ++v)
                sums[v] = hn::Add(sums[v], load(bank.outputs[g] + i + v * kWideLanes));
        for (std::size_t v = 0; v < 4; ++v)
            hn::Store(sums[v], Wide(), lanes + i + v * kWideLanes);
    }
}

HWY_INLINE void addOutputs(const SSectionBank& bank, bool isFirst, float* lanes, std::size_t frames)
{
    addOutputs(bank, isFirst, lanes, frames,
               [](const float* place) HWY_ATTR { return hn::Load(Wide(), place); });
}

enum class EOutputs
{
    Give,
    AddTo ///< what is there; each is zero on one side
};

/// Takes a bank of that many vectors on by one sample after the other, with its state in registers. Every
/// section waits for its own last output, three operations long.
template<std::size_t vectors, EOutputs outputs = EOutputs::Give>
class CSectionSteps
{
public:
    using Work = SSectionBank;

    HWY_INLINE explicit CSectionSteps(SSectionBank& bank)
        : m_bank(bank), m_done(bank.done), m_previous(hn::Set(Wide(), *(bank.delayed + m_done - 1)))
    {
        loadState(Index());
    }

    HWY_INLINE void step()
    {
        const WideVector x = hn::Set(Wide(), m_bank.delayed[m_done]);
        stepVectors(x, m_bank.outputs[0] + lanesOf(m_done), Index());
        m_previous = x;
        ++m_done;
    }

    /// Puts the state back.
    HWY_INLINE void finish()
    {
        storeState(Index());
        m_bank.done = m_done;
    }

private:
    using Index = std::make_index_sequence<vectors>;

    HWY_INLINE float* field(SSectionBank::EField which, std::size_t v) const
    {
        return m_bank.fields[which] + v * kWideLanes;
    }

    template<std::size_t... v>
    HWY_INLINE void loadState(std::index_sequence<v...>)
    {
        ((m_y1[v] = hn::Load(Wide(), field(SSectionBank::kY1, v))), ...);
        ((m_y2[v] = hn::Load(Wide(), field(SSectionBank::kY2, v))), ...);
    }

    template<std::size_t... v>
    HWY_INLINE void storeState(std::index_sequence<v...>) const
    {
        (hn::Store(m_y1[v], Wide(), field(SSectionBank::kY1, v)), ...);
        (hn::Store(m_y2[v], Wide(), field(SSectionBank::kY2, v)), ...);
    }

    template<std::size_t... v>
    HWY_INLINE void stepVectors(WideVector x, float* lanes, std::index_sequence<v...>)
    {
        (stepVector<v>(x, lanes + v * kGroupsPerVector * kLanesOfRun), ...);
    }

    template<std::size_t v>
    HWY_INLINE void stepVector(WideVector x, float* lanes)
    {
        const auto times = [this](SSectionBank::EField which, WideVector y)
                               HWY_ATTR { return hn::Mul(hn::Load(Wide(), field(which, v)), y); };
        const WideVector forward = hn::Add(times(SSectionBank::kB0, x), times(SSectionBank::kB1, m_previous));
        const WideVector back = hn::Add(times(SSectionBank::kA1, m_y1[v]), times(SSectionBank::kA2, m_y2[v]));
        m_y2[v] = m_y1[v];
        m_y1[v] = hn::Sub(forward, back);
        WideVector output = m_y1[v];
        if constexpr (outputs == EOutputs::AddTo)
            output = hn::Add(output, loadFours(lanes, kLanesOfRun));
        storeFours(output, lanes, kLanesOfRun);
    }

    SSectionBank& m_bank;
    std::size_t m_done;
    WideVector m_previous;
    WideVector m_y1[vectors], m_y2[vectors];
};

template<std::size_t vectors, EOutputs outputs = EOutputs::Give>
HWY_NOINLINE void runSections(SSectionBank& bank, std::size_t frames)
{
    CSectionSteps<vectors, outputs> steps(bank);
    for (std::size_t i = 0; i < frames; ++i)
        steps.step();
    steps.finish();
}

} // namespace HWY_NAMESPACE
} // namespace korvodsp
HWY_AFTER_NAMESPACE();

#endif
