// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/helpers.h"

#include <array>
#include <cstdint>

#include "toolbox/cblas.h"
#include "toolbox/truncate.h"

namespace korvotoolbox {

namespace {

template<typename T>
int indexOfLargest(const T* values, int length)
{
    if (length < 1)
        return -1;
    int best = 0;
    for (int i = 1; i < length; ++i)
    {
        if (values[i] > values[best])
            best = i;
    }
    return best;
}

struct SPowers
{
    std::uint32_t base;
    int highest;
};

constexpr std::array<SPowers, 5> kFactors{{{2, 21}, {3, 3}, {5, 3}, {7, 3}, {11, 1}}};

/// Walks all products of the factors from `factor` on, times `product`, the first factor in the outermost
/// loop.
void findNearestProduct(std::size_t factor, std::uint32_t product, int length, int& nearest, int& distance)
{
    if (factor == kFactors.size())
    {
        const auto size = static_cast<std::int32_t>(product);
        if (size >= length && size - length < distance)
        {
            nearest = size;
            distance = size - length;
        }
        return;
    }
    for (int power = 0; power <= kFactors[factor].highest; ++power)
    {
        findNearestProduct(factor + 1, product, length, nearest, distance);
        product *= kFactors[factor].base; // wraps, and is meant to
    }
}

} // namespace

int round(double value)
{
    return truncateToInt(value >= 0.0 ? value + 0.5 : value - 0.5);
}

int round(float value)
{
    return truncateToInt(static_cast<double>(value >= 0.0F ? value + 0.5F : value - 0.5F));
}

int maxIdx(const float* values, int length)
{
    return indexOfLargest(values, length);
}

int maxIdx(const double* values, int length)
{
    return indexOfLargest(values, length);
}

int maxAbsIdx(const float* values, int length)
{
    if (values == nullptr || length < 1)
        return -1;
    return static_cast<int>(cblas_isamax(length, values, 1));
}

int maxAbsIdx(const double* values, int length)
{
    if (values == nullptr || length < 1)
        return -1;
    return static_cast<int>(cblas_idamax(length, values, 1));
}

bool fsIsSupported(int rate)
{
    return rate == 44100 || rate == 48000 || rate == 88200 || rate == 96000;
}

int nearestFFTWSize(int length)
{
    if (length < 8)
        return 0;
    int nearest = 0;
    int distance = length; // so a size of twice the length is never taken
    findNearestProduct(0, 1, length, nearest, distance);
    return nearest;
}

} // namespace korvotoolbox
