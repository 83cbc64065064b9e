// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/numeric_kernels.h"

#include <cmath>
#include <cstdint>
#include <cstdlib>

void vsLog10(int n, const float* a, float* y)
{
    for (int i = 0; i < n; ++i)
        y[i] = std::log10(a[i]);
}

void vslog10_(const int* n, const float* a, float* y)
{
    vsLog10(*n, a, y);
}

void vsPowx(int n, const float* a, float b, float* y)
{
    for (int i = 0; i < n; ++i)
        y[i] = std::pow(a[i], b);
}

void* MKL_malloc(std::size_t size, int alignment)
{
    // aligned_alloc() takes whole multiples of the alignment only.
    const auto unit = static_cast<std::size_t>(alignment);
    if (size > SIZE_MAX - (unit - 1))
        return nullptr;
    return std::aligned_alloc(unit, (size + unit - 1) / unit * unit);
}

void MKL_free(void* block)
{
    std::free(block);
}
