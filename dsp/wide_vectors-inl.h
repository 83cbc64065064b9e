// SPDX-License-Identifier: GPL-3.0-or-later
// The vectors of the kernels, and where they leave the lanes of their sums; compiled once per instruction
// set.

#if defined(KORVO_DSP_WIDE_VECTORS_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef KORVO_DSP_WIDE_VECTORS_INL_H_
#undef KORVO_DSP_WIDE_VECTORS_INL_H_
#else
#define KORVO_DSP_WIDE_VECTORS_INL_H_
#endif

#include <hwy/highway.h>

#include <algorithm>
#include <cstddef>
#include <utility>

#include "dsp/sse2_lanes.h"

HWY_BEFORE_NAMESPACE();
namespace korvodsp {
namespace HWY_NAMESPACE {

/// Floats of a row of running sums, and slots of a block of the ring.
constexpr std::size_t kRow = 16;

#if HWY_TARGET == HWY_SCALAR
namespace hn = sse2lanes;
constexpr std::size_t kWideLanes = 4;
#else
namespace hn = hwy::HWY_NAMESPACE;
constexpr std::size_t kWideLanes = HWY_MAX_BYTES / sizeof(float);
#endif

using Wide = hn::CappedTag<float, kRow>;
using WideVector = hn::Vec<Wide>;
using Four = hn::FixedTag<float, 4>;
using FourVector = hn::Vec<Four>;

/// Outputs summed up at a time: as many as leave a register for each running sum, each vector of taps and
/// three more. AVX-512 has registers for 14; but sections want some, and few blocks are that long.
constexpr std::size_t kGroup = HWY_TARGET == HWY_AVX3 ? 8 : 6;
constexpr std::size_t kMaxRun = kRow * kGroup;
static_assert(kMaxRun % kWideLanes == 0);

/// Where the four lanes that an output's sum ends in lie among those of a run. Four outputs that follow each
/// other lie kWideLanes apart, so that sumLanes() needs a few operations on wide vectors only; outputs kRow
/// apart lie four times as far apart.
HWY_INLINE std::size_t lanesOf(std::size_t output)
{
    return (output & ~(kWideLanes - 1)) * 4 + output % 4 * kWideLanes + output % kWideLanes / 4 * 4;
}
constexpr std::size_t kLanesOfRun = 4 * kMaxRun;

/// What wide vectors have to go through for that many outputs.
HWY_INLINE std::size_t lanesFor(std::size_t outputs)
{
    return (outputs + kWideLanes - 1) / kWideLanes * kWideLanes * 4;
}

/// Puts zeros where the last of those vectors lie, some of which may belong to no output. What was left there
/// would do no harm to results, but as a denormal cost time, and pass for a tiny section that has grown.
HWY_INLINE void clearLastLanes(float* lanes, std::size_t outputs)
{
    if (outputs % kWideLanes != 0)
        std::fill_n(lanes + lanesFor(outputs) - 4 * kWideLanes, 4 * kWideLanes, 0.0F);
}

/// Four lanes of a vector. Taken straight to memory they cost a store and no more, which Highway's halves do
/// not.
template<std::size_t four>
HWY_INLINE __m128 fourOf(WideVector v)
{
#if HWY_TARGET == HWY_AVX3
    return _mm512_extractf32x4_ps(v.raw, four);
#elif HWY_TARGET == HWY_AVX2
    return _mm256_extractf128_ps(v.raw, four);
#else
    return v.v;
#endif
}

template<std::size_t... four>
HWY_INLINE void storeFours(WideVector v, float* places, std::size_t step, std::index_sequence<four...>)
{
    (_mm_store_ps(places + four * step, fourOf<four>(v)), ...);
}

/// Puts each four lanes of a vector `step` floats apart.
HWY_INLINE void storeFours(WideVector v, float* places, std::size_t step)
{
    storeFours(v, places, step, std::make_index_sequence<kWideLanes / 4>());
}

/// The other way round.
HWY_INLINE WideVector loadFours(const float* places, std::size_t step)
{
    HWY_ALIGN_MAX float lanes[kWideLanes];
    for (std::size_t i = 0; i < kWideLanes; i += 4)
        hn::Store(hn::Load(Four(), places + i / 4 * step), Four(), lanes + i);
    return hn::Load(Wide(), lanes);
}

/// ((l0 + l1) + l2) + l3 of the lanes of kWideLanes outputs.
HWY_INLINE WideVector sumLanes(const WideVector (&lanes)[4])
{
    const Wide wide;
    const WideVector low02 = hn::InterleaveLower(wide, lanes[0], lanes[2]);
    const WideVector low13 = hn::InterleaveLower(wide, lanes[1], lanes[3]);
    const WideVector high02 = hn::InterleaveUpper(wide, lanes[0], lanes[2]);
    const WideVector high13 = hn::InterleaveUpper(wide, lanes[1], lanes[3]);
    const WideVector lane0 = hn::InterleaveLower(wide, low02, low13);
    const WideVector lane1 = hn::InterleaveUpper(wide, low02, low13);
    const WideVector lane2 = hn::InterleaveLower(wide, high02, high13);
    const WideVector lane3 = hn::InterleaveUpper(wide, high02, high13);
    return hn::Add(hn::Add(hn::Add(lane0, lane1), lane2), lane3);
}

} // namespace HWY_NAMESPACE
} // namespace korvodsp
HWY_AFTER_NAMESPACE();

#endif
