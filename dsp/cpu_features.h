// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>

/// Numbers of the flags below. The names say what each flag is asked for.
enum ssp_cpu_feature : int
{
    ssp_feature_none = 0, ///< never set
    ssp_feature_sse = 1,
    ssp_feature_sse2 = 2,
    ssp_feature_sse3 = 3,
    ssp_feature_ssse3 = 4,
    ssp_feature_sse4a = 5,
    ssp_feature_sse4_1 = 6,
    ssp_feature_sse4_2 = 7,
    ssp_feature_xop = 8,
    ssp_feature_count = 9
};

/// One flag per feature, 1 where the processor reports it, else 0.
struct ssp_cpu_features
{
    std::uint32_t flags[ssp_feature_count];
};

/// Asks the processor. The flags decide between the vector and the scalar kernel of a filter and nothing
/// else: the width of the vectors is decided in kernel_variants.h.
ssp_cpu_features ssp_get_cpuid();

/// One flag of ssp_get_cpuid(); false for a number that is none of the enumeration.
bool ssp_is_supported(ssp_cpu_feature feature);
