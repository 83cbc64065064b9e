// SPDX-License-Identifier: GPL-3.0-or-later
/// @file
/// The numeric operations of the toolbox that no free library brings under these names, over the standard
/// library. Hidden, and hidden they stay: a host may be linked with the vendor's library of the same names,
/// and neither may end up calling the other's.
#pragma once

#include <cstddef>

extern "C" {

/// y[i] = log10(a[i]) for `n` elements; `a` and `y` may be the same array. Does nothing for n below 1.
void vsLog10(int n, const float* a, float* y);

/// vsLog10() with its count by pointer, as Fortran calls it.
void vslog10_(const int* n, const float* a, float* y);

/// y[i] = a[i] to the power b for `n` elements: the array is the base, the scalar the exponent. `a` and `y`
/// may be the same array. Does nothing for n below 1.
void vsPowx(int n, const float* a, float b, float* y);

/// `size` bytes at a multiple of `alignment`, a power of two; null if memory is out. Released by MKL_free().
void* MKL_malloc(std::size_t size, int alignment);

/// Releases a block of MKL_malloc(). Null is ignored.
void MKL_free(void* block);
}
