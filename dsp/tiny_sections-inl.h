// SPDX-License-Identifier: GPL-3.0-or-later
// Sections that ring down in silence; compiled once per instruction set.
//
// A section without input rings down into denormals and stays there for ever: rounded to nearest, its last
// few steps repeat. Each multiplication then costs what dsp/denormals.h tells of. Here such sections run in
// double precision instead, on integers in units of 2^-149, and give the bits of single precision:
//
// - A section is taken on while both of its outputs are denormal or zero, which is below 2^23 units, and |a1|
//   and |a2| are at most 2. Its products then stay below 2^24 units, where single precision knows every unit.
//   Their sum may be larger; but a section whose output reaches 2^23 units is thrown away and run again in
//   the ordinary way.
// - Products of 24 by 23 bits are exact in double precision. Adding and taking away kToInteger rounds them to
//   units, ties to even, as single precision does. A product that rounds to zero keeps its sign, which
//   decides on the signs of the zeros that follow.
// - Sums of integers are exact in both, and zeros of either sign add up alike.
//
// States are taken from single precision and given back by their bits, which are the integers: conversions of
// denormals may cost as much as the multiplications. GCC's vectors serve all targets with one source.

#if defined(KORVO_DSP_TINY_SECTIONS_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef KORVO_DSP_TINY_SECTIONS_INL_H_
#undef KORVO_DSP_TINY_SECTIONS_INL_H_
#else
#define KORVO_DSP_TINY_SECTIONS_INL_H_
#endif

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "dsp/denormals.h"
#include "dsp/section_bank-inl.h"

HWY_BEFORE_NAMESPACE();
namespace korvodsp {
namespace HWY_NAMESPACE {

constexpr std::size_t kTinyLanes = kWideLanes / 2;
using Doubles = double __attribute__((vector_size(kTinyLanes * 8)));
using Words = std::int64_t __attribute__((vector_size(kTinyLanes * 8)));
using Bits = std::int32_t __attribute__((vector_size(kTinyLanes * 4))); // of floats
static_assert(kBankLanes % kTinyLanes == 0);

HWY_INLINE Bits loadBits(const void* p)
{
    Bits bits;
    std::memcpy(&bits, p, sizeof bits);
    return bits;
}

HWY_INLINE void storeBits(Bits bits, void* p)
{
    std::memcpy(p, &bits, sizeof bits);
}

constexpr std::int32_t kSign = INT32_MIN;
constexpr std::int64_t kWordSign = INT64_MIN;
constexpr auto kExponent = static_cast<std::int32_t>(kExponentBits);

/// Denormals, in units.
HWY_INLINE Doubles unitsOf(Bits denormals)
{
    const Doubles magnitude = __builtin_convertvector(denormals & ~kSign, Doubles);
    return Doubles(Words(magnitude) | (__builtin_convertvector(denormals, Words) & kWordSign));
}

/// The way back. From 2^23 units on, the bits of the exponent are not all clear.
HWY_INLINE Bits bitsOf(Doubles units)
{
    const Doubles magnitude = Doubles(Words(units) & ~kWordSign) + 0x1p52; // in the lowest bits
    return __builtin_convertvector(Words(magnitude), Bits) |
           (__builtin_convertvector(Words(units) >> 32, Bits) & kSign);
}

HWY_INLINE Doubles roundedToUnits(Doubles product)
{
    const Words rounded = Words((product + kToInteger) - kToInteger);
    return Doubles((rounded & ~kWordSign) | (Words(product) & kWordSign));
}

/// Sections of a bank on their way through silence.
struct STinySections
{
    HWY_ALIGN_MAX std::int32_t chosen[kBankLanes]; ///< all bits set for those that are tiny
    HWY_ALIGN_MAX float y1[kBankLanes];
    HWY_ALIGN_MAX float y2[kBankLanes];
    SBankOutputs outputs;
    bool all; ///< no section of the bank is left
};

/// Chooses from the first `lanes` of the bank. No section with infinite b0 or b1 is among them: its very
/// first output was NaN, and before that all are at rest.
/// @return whether a chosen one is not at rest
HWY_INLINE bool chooseTiny(const SSectionBank& bank, std::size_t lanes, STinySections& tiny)
{
    constexpr auto kTwo = 0x40000000; // the bits of 2.0F
    Bits alive{};
    Bits left{};
    for (std::size_t lane = 0; lane < lanes; lane += kTinyLanes)
    {
        const auto field = [&bank, lane](SSectionBank::EField which)
                               HWY_ATTR { return loadBits(bank.fields[which] + lane) & ~kSign; };
        const Bits state = field(SSectionBank::kY1) | field(SSectionBank::kY2);
        const Bits chosen = ((state & kExponent) == 0) & (field(SSectionBank::kA1) <= kTwo) &
                            (field(SSectionBank::kA2) <= kTwo);
        storeBits(chosen, tiny.chosen + lane);
        alive |= state & chosen;
        left |= ~chosen;
    }
    std::int32_t anyAlive = 0;
    std::int32_t anyLeft = 0;
    for (std::size_t i = 0; i < kTinyLanes; ++i)
    {
        anyAlive |= alive[i];
        anyLeft |= left[i];
    }
    tiny.all = anyLeft == 0;
    return anyAlive != 0;
}

/// Runs the chosen sections among kTinyLanes, from `lane` on, over silence.
/// @return their outputs, all or-ed together
HWY_INLINE Bits runTinyLanes(const SSectionBank& bank, std::size_t lane, std::size_t frames,
                             STinySections& tiny)
{
    const auto coefficients = [&bank, lane](SSectionBank::EField which) HWY_ATTR {
        using Floats = float __attribute__((vector_size(kTinyLanes * 4)));
        return __builtin_convertvector(Floats(loadBits(bank.fields[which] + lane)), Doubles);
    };
    const Doubles b0 = coefficients(SSectionBank::kB0);
    const Doubles b1 = coefficients(SSectionBank::kB1);
    const Doubles a1 = coefficients(SSectionBank::kA1);
    const Doubles a2 = coefficients(SSectionBank::kA2);
    const Bits chosen = loadBits(tiny.chosen + lane);
    Doubles y1 = unitsOf(loadBits(bank.fields[SSectionBank::kY1] + lane) & chosen);
    Doubles y2 = unitsOf(loadBits(bank.fields[SSectionBank::kY2] + lane) & chosen);
    Bits seen{};
    double previous = bank.delayed[-1];
    for (std::size_t i = 0; i < frames; ++i)
    {
        const double x = bank.delayed[i]; // zeros have signs, too
        const Doubles forward = b0 * x + b1 * previous;
        const Doubles back = roundedToUnits(a1 * y1) + roundedToUnits(a2 * y2);
        previous = x;
        y2 = y1;
        y1 = forward - back;
        const Bits output = bitsOf(y1);
        storeBits(output, tiny.outputs.rows[i] + lane);
        seen |= output;
    }
    storeBits(bitsOf(y1), tiny.y1 + lane);
    storeBits(bitsOf(y2), tiny.y2 + lane);
    return seen & chosen;
}

/// Runs the chosen sections over at most kGroup samples of silence; the bank stays as it was.
/// @return false if one of them has left the denormals
HWY_INLINE bool runTiny(const SSectionBank& bank, std::size_t lanes, std::size_t frames, STinySections& tiny)
{
    Bits seen{};
    for (std::size_t lane = 0; lane < lanes; lane += kTinyLanes)
        seen |= runTinyLanes(bank, lane, frames, tiny);
    std::int32_t any = 0;
    for (std::size_t i = 0; i < kTinyLanes; ++i)
        any |= seen[i];
    return (any & kExponent) == 0;
}

/// Puts the chosen sections to rest, for the others to run without them.
HWY_INLINE void hideTiny(SSectionBank& bank, std::size_t lanes, const STinySections& tiny)
{
    for (const std::size_t state : {SSectionBank::kY1, SSectionBank::kY2})
    {
        for (std::size_t lane = 0; lane < lanes; lane += kTinyLanes)
        {
            float* hidden = bank.fields[state] + lane;
            storeBits(loadBits(hidden) & ~loadBits(tiny.chosen + lane), hidden);
        }
    }
}

/// Gives the chosen sections their places among the others.
HWY_INLINE void mergeTiny(const STinySections& tiny, std::size_t lanes, std::size_t frames,
                          SSectionBank& bank, SBankOutputs& outputs)
{
    for (std::size_t lane = 0; lane < lanes; lane += kTinyLanes)
    {
        const Bits chosen = loadBits(tiny.chosen + lane);
        const auto merge = [chosen](const float* from, float* to) HWY_ATTR {
            storeBits((loadBits(from) & chosen) | (loadBits(to) & ~chosen), to);
        };
        merge(tiny.y1 + lane, bank.fields[SSectionBank::kY1] + lane);
        merge(tiny.y2 + lane, bank.fields[SSectionBank::kY2] + lane);
        for (std::size_t i = 0; i < frames; ++i)
            merge(tiny.outputs.rows[i] + lane, outputs.rows[i] + lane);
    }
}

} // namespace HWY_NAMESPACE
} // namespace korvodsp
HWY_AFTER_NAMESPACE();

#endif
