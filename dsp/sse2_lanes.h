// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <emmintrin.h>

#include <cstddef>

/// The few operations that the kernels take from Highway, under the same names, on plain SSE2. Highway's own
/// vectors begin with SSSE3; what lies below is one lane at a time to it.
namespace korvodsp::sse2lanes {

struct STag
{
};
template<typename T, std::size_t lanes>
using CappedTag = STag;
template<typename T, std::size_t lanes>
using FixedTag = STag;

/// A struct of its own, since the attributes of __m128 would get lost in template arguments.
struct SVector
{
    __m128 v;
};
template<class Tag>
using Vec = SVector;

// clang-format off
inline SVector Zero(STag) { return {_mm_setzero_ps()}; }
inline SVector Set(STag, float x) { return {_mm_set1_ps(x)}; }
inline SVector Iota(STag, float first) { return {_mm_setr_ps(first, first + 1, first + 2, first + 3)}; }
inline SVector Load(STag, const float* p) { return {_mm_load_ps(p)}; }
inline SVector LoadU(STag, const float* p) { return {_mm_loadu_ps(p)}; }
inline void Store(SVector a, STag, float* p) { _mm_store_ps(p, a.v); }
inline void StoreU(SVector a, STag, float* p) { _mm_storeu_ps(p, a.v); }
inline SVector Reverse(STag, SVector a) { return {_mm_shuffle_ps(a.v, a.v, _MM_SHUFFLE(0, 1, 2, 3))}; }
inline SVector Add(SVector a, SVector b) { return {_mm_add_ps(a.v, b.v)}; }
inline SVector Sub(SVector a, SVector b) { return {_mm_sub_ps(a.v, b.v)}; }
inline SVector Mul(SVector a, SVector b) { return {_mm_mul_ps(a.v, b.v)}; }
inline SVector Ge(SVector a, SVector b) { return {_mm_cmpge_ps(a.v, b.v)}; }
inline SVector Le(SVector a, SVector b) { return {_mm_cmple_ps(a.v, b.v)}; }
inline SVector FirstN(STag, std::size_t n)
{
    const __m128i lane = _mm_setr_epi32(0, 1, 2, 3);
    return {_mm_castsi128_ps(_mm_cmplt_epi32(lane, _mm_set1_epi32(static_cast<int>(n))))};
}
inline SVector IfThenElse(SVector mask, SVector yes, SVector no)
{
    return {_mm_or_ps(_mm_and_ps(mask.v, yes.v), _mm_andnot_ps(mask.v, no.v))};
}
inline SVector InterleaveLower(STag, SVector a, SVector b) { return {_mm_unpacklo_ps(a.v, b.v)}; }
inline SVector InterleaveUpper(STag, SVector a, SVector b) { return {_mm_unpackhi_ps(a.v, b.v)}; }
// clang-format on

} // namespace korvodsp::sse2lanes
