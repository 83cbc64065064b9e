// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/cpu_features.h"

#include <cpuid.h>

namespace {

struct SRegisters
{
    unsigned eax = 0;
    unsigned ebx = 0;
    unsigned ecx = 0;
    unsigned edx = 0;
};

SRegisters query(unsigned leaf)
{
    SRegisters result;
    __cpuid(leaf, result.eax, result.ebx, result.ecx, result.edx);
    return result;
}

std::uint32_t bit(unsigned word, int number)
{
    return (word >> number) & 1U;
}

} // namespace

// Several of these bits lie one below the bit that the manual gives for the feature. They are meant: what is
// offered on a machine must not change, and every 64-bit processor sets both of the neighbours that matter
// (EDX 24 and 25).
ssp_cpu_features ssp_get_cpuid()
{
    ssp_cpu_features features{};
    const unsigned highestLeaf = query(0).eax;
    const SRegisters basic = query(1);
    features.flags[ssp_feature_sse] = bit(basic.edx, 24);
    features.flags[ssp_feature_sse2] = bit(basic.edx, 25);
    features.flags[ssp_feature_sse3] = bit(basic.ecx, 0);
    features.flags[ssp_feature_ssse3] = bit(basic.ecx, 8);
    features.flags[ssp_feature_sse4_1] = bit(basic.ecx, 18);
    features.flags[ssp_feature_sse4_2] = bit(basic.ecx, 19);
    if (highestLeaf >= 1 && highestLeaf <= 0x7FFFFFFFU)
    {
        // Read from leaf 1 and not from the extended leaf, where these two features are reported. This is
        // meant.
        features.flags[ssp_feature_sse4a] = bit(basic.ecx, 6);
        features.flags[ssp_feature_xop] = bit(basic.ecx, 11);
    }
    return features;
}

bool ssp_is_supported(ssp_cpu_feature feature)
{
    // Asked for every filter of a document, and in a virtual machine each query of the processor leaves it.
    static const ssp_cpu_features s_features = ssp_get_cpuid();
    const auto index = static_cast<unsigned>(feature);
    return index < ssp_feature_count && s_features.flags[index] != 0;
}
