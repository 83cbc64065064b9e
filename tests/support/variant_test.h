// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "dsp/kernel_variants.h"

namespace korvotest {

/// Runs with every variant of the vector kernels that this machine has, by way of
/// INSTANTIATE_TEST_SUITE_P(All, Suite, everyVariant(), variantName).
class CVariantTest : public testing::TestWithParam<std::size_t>
{
protected:
    const korvodsp::SKernelVariant& variant() const { return korvodsp::kernelVariants()[GetParam()]; }
};

inline auto everyVariant()
{
    return testing::Range(std::size_t{0}, korvodsp::kernelVariants().size());
}

inline std::string variantName(const testing::TestParamInfo<std::size_t>& test)
{
    return korvodsp::kernelVariants()[test.param].name;
}

} // namespace korvotest
