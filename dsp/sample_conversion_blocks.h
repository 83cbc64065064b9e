// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstddef>
#include <cstdint>

namespace korvodsp {

/// The vector paths of the sample conversions for one instruction set. All variants give the same bits; they
/// take at least 8 samples of Int16, 6 of Int24 and 4 of Int32. Readers return true for silence, writers for
/// clipping. Writers expect the rounding mode to be toward negative infinity.
struct SBlockConversions
{
    using FConvert = bool (*)(const unsigned char* src, unsigned char* dst, std::size_t count);
    using FConvertMasked = bool (*)(const unsigned char* src, unsigned char* dst, std::size_t count,
                                    uint32_t mask);

    const char* name;
    FConvert readInt16;
    FConvertMasked readInt24;
    FConvert readInt32;
    FConvert writeInt16;
    FConvertMasked writeInt24;
    FConvert writeInt32;
};

extern const SBlockConversions kSse2Conversions;
extern const SBlockConversions kAvx2Conversions;

bool cpuHasAvx2();

/// Keeps arithmetic between two changes of the rounding mode, of which the compiler knows nothing: what is
/// computed from a pinned value comes after the change before it, and what goes into one comes before the
/// change after it.
template<typename T>
[[gnu::always_inline]] inline T pinned(T value)
{
    __asm__ volatile("" : "+x"(value));
    return value;
}

/// Runs a conversion over `count` samples. One block first, where the pointers are not aligned, from which it
/// goes on at the next boundary of the conversion's chosen pointer; what is less than a block at the end is
/// covered by converting the buffer's last block, so some samples are converted twice, to the same values.
///
/// TConversion::whole() converts kBlock samples and needs kRoom of them to be there, since it may load or
/// store more bytes than the block has; lastBlock() keeps to the block. Unaligned accesses throughout: on an
/// aligned address they cost the same.
template<typename TConversion>
void convertBlocks(TConversion& conversion, const unsigned char* src, unsigned char* dst, std::size_t count)
{
    using C = TConversion;
    const auto srcAddress = reinterpret_cast<std::uintptr_t>(src);
    const auto dstAddress = reinterpret_cast<std::uintptr_t>(dst);
    const std::uintptr_t offset = (C::kAlignsDst ? dstAddress : srcAddress) % C::kAlignment;
    const std::uintptr_t otherOffset = (C::kAlignsDst ? srcAddress : dstAddress) % C::kAlignment;
    const bool packedSide = C::kSrcSize == 3 || C::kDstSize == 3; // never aligned, so only the floats count

    C state = conversion; // a local copy stays in registers
    std::size_t done = 0;
    if (offset != 0 || (otherOffset != 0 && !packedSide))
    {
        state.whole(src, dst);
        done = (C::kAlignment - offset) / (C::kAlignsDst ? C::kDstSize : C::kSrcSize);
    }
    for (; count - done >= C::kRoom; done += C::kBlock)
        state.whole(src + done * C::kSrcSize, dst + done * C::kDstSize);
    for (; count - done >= C::kBlock; done += C::kBlock)
        state.lastBlock(src + done * C::kSrcSize, dst + done * C::kDstSize);
    if (done < count)
        state.lastBlock(src + (count - C::kBlock) * C::kSrcSize, dst + (count - C::kBlock) * C::kDstSize);
    conversion = state;
}

} // namespace korvodsp
