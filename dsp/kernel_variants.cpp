// SPDX-License-Identifier: GPL-3.0-or-later

#include "dsp/kernel_variants.h"

// What lies between these would run the same instructions.
#define HWY_DISABLED_TARGETS (HWY_SSSE3 | HWY_SSE4 | HWY_AVX3_DL)
#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "dsp/kernel_variants.cpp"
#include <hwy/foreach_target.h>

#include "dsp/fiir_sse-inl.h"
#include "dsp/ring_dot-inl.h"

#if HWY_ONCE

#include <atomic>
#include <cstring>

namespace korvodsp {

namespace {

struct STarget
{
    std::int64_t bit;
    SKernelVariant variant;
};

// Best first. HWY_SCALAR is the target of any 64-bit machine; sse2_lanes.h takes the place of Highway's
// vectors there.
#define KORVO_KERNELS(target)                                                                                \
    target::FIIR_SSE, target::ringFilter, target::ringDecimate, target::ringInterpolate
constexpr STarget kTargets[] = {
    {HWY_AVX3, {"avx512", KORVO_KERNELS(N_AVX3)}},
    {HWY_AVX2, {"avx2", KORVO_KERNELS(N_AVX2)}},
    {HWY_SCALAR, {"sse2", KORVO_KERNELS(N_SCALAR)}},
};
#undef KORVO_KERNELS

struct SAvailable
{
    SKernelVariant variants[std::size(kTargets)];
    std::size_t count = 0;
    std::atomic<const SKernelVariant*> chosen;

    SAvailable()
    {
        const std::int64_t supported = hwy::SupportedTargets() | HWY_SCALAR;
        for (const STarget& target : kTargets)
        {
            if ((supported & target.bit) != 0)
                variants[count++] = target.variant;
        }
        chosen.store(variants, std::memory_order_relaxed);
    }
};

SAvailable& available()
{
    static SAvailable s_available;
    return s_available;
}

// Chosen when the library is loaded, so that it is never up to the audio thread.
[[maybe_unused]] const SAvailable& s_chosenAtLoad = available();

} // namespace

std::span<const SKernelVariant> kernelVariants()
{
    return {available().variants, available().count};
}

const SKernelVariant& kernelVariant()
{
    return *available().chosen.load(std::memory_order_relaxed);
}

bool forceKernelVariant(const char* name)
{
    for (const SKernelVariant& variant : kernelVariants())
    {
        if (name == nullptr || std::strcmp(name, variant.name) == 0)
        {
            available().chosen.store(&variant, std::memory_order_relaxed);
            return true;
        }
    }
    return false;
}

} // namespace korvodsp

#endif
