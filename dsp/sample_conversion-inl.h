// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

// The kernels of the sample conversions, written once. Each variant's file includes this behind its target
// pragma and gives it TVectors, a struct without linkage of its own:
//
//   floats_t, ints_t      vectors of kLanes floats and of as many 32-bit integers
//   kLesser               the variant that serves counts below a block, if there are any
//   set1(x)               x, a float or an int, in every lane
//   asFloats(v), asInts(v) the same bits
//   load(p), store(p, v)  any alignment, as all that follow
//   loadInt16(p)          kLanes samples to the tops of the lanes, the rest 0
//   loadInt24(p)          kLanes samples to the tops of the lanes, the low byte anything
//   toFloat(v)            of integers
//   scaled(x, scale)      x * scale + 0.5; fused or not makes no difference, since scaling up by a power of
//                         two is exact but where it overflows or takes a denormal for zero, and there the
//                         half does not count
//   clamp(v, low, high)   NaN arrives unchanged
//   orChanged(a, v, w)    a | (v ^ w)
//   toInt(v)              in the rounding mode in force; NaN gives the most negative integer
//   storeInt16(p, v, w)   two vectors, saturated
//   kInt24Vectors         how many vectors a block of the three-byte writer has
//   storeInt24(p, v)      the upper three bytes of each lane of that many vectors, and nothing beyond them
//   anyBit(v)

#include <cstddef>
#include <cstdint>

#include "dsp/sample_conversion_blocks.h"

namespace korvodsp {

using byte_t = unsigned char;

/// Keeps arithmetic between two changes of the rounding mode, of which the compiler knows nothing: what is
/// computed from a pinned value comes after the change before it, and what goes into one comes before the
/// change after it.
template<typename T>
[[gnu::always_inline]] inline T pinned(T value)
{
    __asm__ volatile("" : "+x"(value));
    return value;
}

template<typename TVectors, std::size_t kSize>
struct SReader
{
    using V = TVectors;
    static constexpr std::size_t kBlock = V::kLanes, kSrcSize = kSize, kDstSize = 4;
    static constexpr bool kAlignsDst = true;

    typename V::ints_t mask, seen = V::set1(0);

    explicit SReader(uint32_t maskIn) : mask(V::set1(static_cast<int>(maskIn & 0xFFFFFF00U))) {}

    void convertBlock(const byte_t* src, byte_t* dst)
    {
        typename V::ints_t samples;
        if constexpr (kSize == 2)
            samples = V::loadInt16(src);
        else if constexpr (kSize == 3)
            samples = V::loadInt24(src) & mask;
        else
            samples = V::load(src);
        seen |= samples;
        V::store(dst, V::asInts(V::toFloat(samples) * V::set1(0x1p-31F)));
    }

    bool result() const { return !V::anyBit(seen); }
};

template<typename TVectors, std::size_t kSize>
struct SWriter
{
    using V = TVectors;
    static constexpr std::size_t kVectors = kSize == 2 ? 2 : kSize == 3 ? V::kInt24Vectors : 1;
    static constexpr std::size_t kBlock = kVectors * V::kLanes, kSrcSize = 4, kDstSize = kSize;
    static constexpr bool kAlignsDst = kSize == 2;
    static constexpr float kLowest = kSize == 2 ? -0x1p15F : -0x1p31F;
    static constexpr float kHighest = kSize == 2 ? 32767.0F : 2147483520.0F; // the last float below 2^31

    typename V::ints_t mask, clipped = V::set1(0);

    explicit SWriter(uint32_t maskIn) : mask(V::set1(static_cast<int>(maskIn << 8))) {}

    void convertBlock(const byte_t* src, byte_t* dst)
    {
        typename V::ints_t samples[kVectors];
        for (std::size_t i = 0; i < kVectors; ++i)
            samples[i] = rounded(src + i * sizeof(typename V::floats_t));
        if constexpr (kSize == 2)
            V::storeInt16(dst, samples[0], samples[1]);
        else if constexpr (kSize == 3)
        {
            for (typename V::ints_t& words : samples)
                words &= mask;
            V::storeInt24(dst, samples);
        }
        else
            V::store(dst, samples[0]);
    }

    bool result() const { return V::anyBit(clipped); }

private:
    /// What clamping has not changed, and NaN is never changed, leaves no bit in `clipped`.
    typename V::ints_t rounded(const byte_t* src)
    {
        const typename V::floats_t x = pinned(V::asFloats(V::load(src)));
        const typename V::floats_t v = V::scaled(x, V::set1(-kLowest));
        const typename V::floats_t clamped = V::clamp(v, V::set1(kLowest), V::set1(kHighest));
        clipped = V::orChanged(clipped, V::asInts(v), V::asInts(clamped));
        return pinned(V::toInt(clamped));
    }
};

/// Runs a conversion over `count` samples, a block at least. One block first, where the conversion's chosen
/// pointer is not aligned, from which it goes on at that pointer's next boundary; what is less than a block
/// at the end is covered by converting the buffer's last block, so some samples are converted twice, to the
/// same values. Unaligned accesses throughout: on an aligned address they cost the same.
template<typename TConversion>
bool convertBlocks(TConversion conversion, const byte_t* src, byte_t* dst, std::size_t count)
{
    using C = TConversion;
    constexpr std::size_t kAlignment = sizeof(typename C::V::floats_t);
    const auto offset = reinterpret_cast<std::uintptr_t>(C::kAlignsDst ? dst : src) % kAlignment;
    std::size_t done = 0;
    if (offset != 0)
    {
        conversion.convertBlock(src, dst);
        done = (kAlignment - offset) / (C::kAlignsDst ? C::kDstSize : C::kSrcSize);
    }
#pragma GCC unroll 2 // short as the loop is, the counting shows
    for (; count - done >= C::kBlock; done += C::kBlock)
        conversion.convertBlock(src + done * C::kSrcSize, dst + done * C::kDstSize);
    if (done < count)
        conversion.convertBlock(src + (count - C::kBlock) * C::kSrcSize,
                                dst + (count - C::kBlock) * C::kDstSize);
    return conversion.result();
}

template<typename TConversion, SBlockConversions::FConvert SBlockConversions::*kSame>
bool convert(const byte_t* src, byte_t* dst, std::size_t count, uint32_t mask)
{
    using V = typename TConversion::V;
    if constexpr (requires { V::kLesser; })
    {
        if (count < TConversion::kBlock)
            return (V::kLesser->*kSame)(src, dst, count, mask);
    }
    return convertBlocks(TConversion(mask), src, dst, count);
}

template<typename V>
constexpr SBlockConversions conversionsBy(const char* name)
{
    using S = SBlockConversions;
    return {name,
            convert<SReader<V, 2>, &S::readInt16>,
            convert<SReader<V, 3>, &S::readInt24>,
            convert<SReader<V, 4>, &S::readInt32>,
            convert<SWriter<V, 2>, &S::writeInt16>,
            convert<SWriter<V, 3>, &S::writeInt24>,
            convert<SWriter<V, 4>, &S::writeInt32>};
}

} // namespace korvodsp
