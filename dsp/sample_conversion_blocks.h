// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace korvodsp {

/// The vector paths of the sample conversions for one instruction set. All variants give the same bits; they
/// take at least 8 samples of Int16, 6 of Int24 and 4 of Int32. Readers return true for silence, writers for
/// clipping. Writers expect the rounding mode to be toward negative infinity. `mask` is that of the
/// three-byte functions; the others do not look at it.
struct SBlockConversions
{
    using FConvert = bool (*)(const unsigned char* src, unsigned char* dst, std::size_t count, uint32_t mask);

    const char* name;
    FConvert readInt16, readInt24, readInt32;
    FConvert writeInt16, writeInt24, writeInt32;
};

extern const SBlockConversions kSse2Conversions;
extern const SBlockConversions kAvx2Conversions;
extern const SBlockConversions kAvx512Conversions;

/// What this processor and its system can run, best first; the functions of sample_conversion.h take the
/// first.
std::span<const SBlockConversions* const> availableConversions();

} // namespace korvodsp
