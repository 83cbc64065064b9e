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

#include "dsp/fiir_filter.h"
#include "dsp/ring_fir-inl.h"

HWY_BEFORE_NAMESPACE();
namespace korvodsp {
namespace HWY_NAMESPACE {

/// Groups of sections that run side by side, with their state in registers.
constexpr std::size_t kGroupsAtOnce = HWY_TARGET == HWY_AVX3 ? 12 : HWY_TARGET == HWY_AVX2 ? 8 : 4;
constexpr std::size_t kBankLanes = kGroupsAtOnce * kSectionsPerGroup;

/// Up to kGroupsAtOnce cooked groups, rearranged so that groups lie side by side, and their way through a
/// run. Every section waits for its own last output, three operations long; a bank therefore runs a few
/// samples at a time between the groups of FIR sums, which fill the gaps.
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
    std::size_t groups;
    std::size_t waiting = 0; ///< samples that the bank may run on by
    const float* delayed;    ///< input still to come; delayed[-1] is the one before
    float* sums;             ///< four lanes per sample, to which the groups are added in order
    bool silent = false;     ///< all input of the run is zero, and denormals are worth a way of their own
};

/// What a bank's sections give over a few samples.
struct SBankOutputs
{
    HWY_ALIGN_MAX float rows[kGroup][kBankLanes];
};

HWY_INLINE void loadBank(SSectionBank& bank, const float* cooked, std::size_t groups)
{
    bank.groups = groups;
    for (std::size_t field = 0; field < SSectionBank::kFields; ++field)
    {
        float* lanes = bank.fields[field];
        std::fill_n(lanes, kBankLanes, 0.0F);
        for (std::size_t g = 0; g < groups; ++g)
            std::copy_n(cooked + g * kFloatsPerGroup + field * kSectionsPerGroup, kSectionsPerGroup,
                        lanes + g * kSectionsPerGroup);
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

} // namespace HWY_NAMESPACE
} // namespace korvodsp
HWY_AFTER_NAMESPACE();

#endif
