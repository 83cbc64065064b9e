// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <span>
#include <vector>

namespace korvotest {

/// Equal to the bit, any NaN being as good as any other: which operand's payload survives is no part of a
/// result.
inline bool sameBits(float a, float b)
{
    return std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b) ||
           (std::isnan(a) && std::isnan(b));
}

inline testing::AssertionResult sameBits(const std::vector<float>& actual, std::span<const float> expected)
{
    if (actual.size() != expected.size())
        return testing::AssertionFailure() << actual.size() << " for " << expected.size() << " values";
    for (std::size_t i = 0; i < actual.size(); ++i)
    {
        if (!sameBits(actual[i], expected[i]))
            return testing::AssertionFailure() << "at " << i << ": " << actual[i] << " for " << expected[i];
    }
    return testing::AssertionSuccess();
}

/// An interleaved block of `stride` channels, one of them given, with 5.0 in all others.
inline std::vector<float> blockOf(const std::vector<float>& column, unsigned channel, unsigned stride)
{
    std::vector<float> block(column.size() * stride, 5.0F);
    for (std::size_t i = 0; i < column.size(); ++i)
        block[i * stride + channel] = column[i];
    return block;
}

} // namespace korvotest
