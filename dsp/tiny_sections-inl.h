// SPDX-License-Identifier: GPL-3.0-or-later
// Sections that ring down in silence; compiled once per instruction set.
//
// A section without input rings down into denormals and stays there for ever: rounded to nearest, its last
// few steps repeat. Each multiplication then costs what dsp/denormals.h tells of. Here such sections run in
// double precision instead, on integers in units of 2^-149, and give the bits of single precision:
//
// - A section is taken on while both of its outputs are denormal or zero, which is below 2^23 units, and |a1|
//   and |a2| are at most 2. Its products then stay below 2^24 units, where single precision knows every unit.
//   Their sum may be larger; but a run in which an output reaches 2^23 units is done once more in the
//   ordinary way.
// - Products of 24 by 23 bits are exact in double precision. Adding kToInteger rounds them to units, ties to
//   even, as single precision does. Sums of integers are exact in both.
// - A zero among the outputs is +0 here, where it can be -0 in single precision. That shows nowhere: all that
//   depends on the sign of a zero is the sign of another one, and the sum over the sections starts at +0,
//   which stays +0 when -0 is added, rounded to nearest.
//
// States are taken from single precision and given back by their bits, which are the integers: conversions of
// denormals may cost as much as the multiplications. GCC's vectors serve all targets with one source.

#if defined(KORVO_DSP_TINY_SECTIONS_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef KORVO_DSP_TINY_SECTIONS_INL_H_
#undef KORVO_DSP_TINY_SECTIONS_INL_H_
#else
#define KORVO_DSP_TINY_SECTIONS_INL_H_
#endif

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "dsp/denormals.h"
#include "dsp/section_bank-inl.h"

HWY_BEFORE_NAMESPACE();
namespace korvodsp {
namespace HWY_NAMESPACE {

constexpr std::size_t kTinyLanes = kWideLanes / 2;
using Doubles = double __attribute__((vector_size(kTinyLanes * 8)));
using Floats = float __attribute__((vector_size(kTinyLanes * 4)));
using Bits = std::int32_t __attribute__((vector_size(kTinyLanes * 4))); // of floats
using WideBits = std::int32_t __attribute__((vector_size(kWideLanes * 4)));

constexpr std::int32_t kSign = INT32_MIN;
constexpr auto kExponent = static_cast<std::int32_t>(kExponentBits);

template<class Vector>
HWY_INLINE Vector loadAs(const void* p)
{
    Vector vector;
    std::memcpy(&vector, p, sizeof vector);
    return vector;
}

template<class Vector>
HWY_INLINE void storeAs(Vector vector, void* p)
{
    std::memcpy(p, &vector, sizeof vector);
}

template<class Vector>
HWY_INLINE bool any(Vector bits)
{
    std::uint64_t words[sizeof bits / sizeof(std::uint64_t)];
    std::memcpy(words, &bits, sizeof bits);
    std::uint64_t all = 0;
    for (const std::uint64_t word : words)
        all |= word;
    return all != 0;
}

/// Denormals, in units.
HWY_INLINE Doubles unitsOf(Bits denormals)
{
    const Bits magnitude = denormals & ~kSign;
    return __builtin_convertvector(denormals < 0 ? -magnitude : magnitude, Doubles);
}

/// What is out of range gives INT32_MIN, by the intrinsics' definition.
HWY_INLINE Bits integersOf(Doubles units)
{
#if HWY_TARGET == HWY_AVX3
    return Bits(_mm512_cvttpd_epi32(units));
#elif HWY_TARGET == HWY_AVX2
    return Bits(_mm256_cvttpd_epi32(units));
#else
    return loadAs<Bits>(&static_cast<const __m128i&>(_mm_cvttpd_epi32(units)));
#endif
}

// INT32_MIN stays what it is.
#if HWY_TARGET == HWY_AVX3
HWY_INLINE Bits magnitudeOf(Bits v)
{
    return Bits(_mm256_abs_epi32(__m256i(v)));
}
HWY_INLINE WideBits magnitudeOf(WideBits v)
{
    return WideBits(_mm512_abs_epi32(__m512i(v)));
}
#elif HWY_TARGET == HWY_AVX2
HWY_INLINE Bits magnitudeOf(Bits v)
{
    return Bits(_mm_abs_epi32(__m128i(v)));
}
HWY_INLINE WideBits magnitudeOf(WideBits v)
{
    return WideBits(_mm256_abs_epi32(__m256i(v)));
}
#else
HWY_INLINE Bits magnitudeOf(Bits v)
{
    using Unsigned = std::uint32_t __attribute__((vector_size(sizeof(Bits))));
    const Bits minusOne = v >> 31; // where negative
    return Bits(Unsigned(v ^ minusOne) - Unsigned(minusOne));
}
HWY_INLINE WideBits magnitudeOf(WideBits v)
{
    using Unsigned = std::uint32_t __attribute__((vector_size(sizeof(WideBits))));
    const WideBits minusOne = v >> 31;
    return WideBits(Unsigned(v ^ minusOne) - Unsigned(minusOne));
}
#endif

/// The way back. From 2^23 units on, the bits of the exponent are not all clear.
template<class Vector>
HWY_INLINE Vector bitsOf(Vector integers)
{
    return magnitudeOf(integers) | (integers & kSign);
}

/// Chooses the tiny ones among a bank's sections, and takes their state. No section with infinite b0 or b1 is
/// among them: its first output after a reset is NaN, infinity times the ring's zeros, and until then all are
/// at rest.
/// @return whether one of those is not at rest
HWY_INLINE bool chooseTiny(const SSectionBank& bank, STinySections& tiny)
{
    constexpr auto kTwo = 0x40000000; // the bits of 2.0F
    Bits alive{};
    Bits left{};
    for (std::size_t lane = 0; lane < bank.vectors() * kWideLanes; lane += kTinyLanes)
    {
        const auto field = [&bank, lane](SSectionBank::EField which)
                               HWY_ATTR { return loadAs<Bits>(bank.fields[which] + lane); };
        const Bits y1 = field(SSectionBank::kY1);
        const Bits y2 = field(SSectionBank::kY2);
        const Bits a1 = field(SSectionBank::kA1);
        const Bits a2 = field(SSectionBank::kA2);
        const Bits chosen =
            (((y1 | y2) & kExponent) == 0) & ((a1 & ~kSign) <= kTwo) & ((a2 & ~kSign) <= kTwo);
        storeAs(chosen, tiny.chosen + lane);
        storeAs(__builtin_convertvector(Floats(a1 & chosen), Doubles), tiny.a1 + lane);
        storeAs(-__builtin_convertvector(Floats(a2 & chosen), Doubles), tiny.minusA2 + lane);
        storeAs(unitsOf(y1 & chosen), tiny.y1 + lane);
        storeAs(unitsOf(y2 & chosen), tiny.y2 + lane);
        alive |= (y1 | y2) & ~kSign & chosen;
        left |= ~chosen;
    }
    tiny.all = !any(left);
    return any(alive);
}

/// Takes the tiny ones among a bank's sections over, and leaves them at rest in the bank.
/// @return false, with nothing done, if all of those are at rest
HWY_INLINE bool takeTiny(SSectionBank& bank)
{
    STinySections& tiny = bank.tiny;
    if (!chooseTiny(bank, tiny))
        return false;
    for (std::size_t lane = 0; lane < bank.vectors() * kWideLanes; lane += kTinyLanes)
    {
        const Bits chosen = loadAs<Bits>(tiny.chosen + lane);
        const auto hide = [chosen, lane](float* state, float* kept) HWY_ATTR {
            const Bits bits = loadAs<Bits>(state + lane);
            storeAs(bits, kept + lane);
            storeAs(bits & ~chosen, state + lane);
        };
        hide(bank.fields[SSectionBank::kY1], tiny.keptY1);
        hide(bank.fields[SSectionBank::kY2], tiny.keptY2);
    }
    return true;
}

/// Gives them back.
HWY_INLINE void giveTinyBack(SSectionBank& bank)
{
    const STinySections& tiny = bank.tiny;
    for (std::size_t lane = 0; lane < bank.vectors() * kWideLanes; lane += kTinyLanes)
    {
        const Bits chosen = loadAs<Bits>(tiny.chosen + lane);
        const auto give = [chosen](Bits bits, float* to)
                              HWY_ATTR { storeAs((bits & chosen) | (loadAs<Bits>(to) & ~chosen), to); };
        give(bitsOf(integersOf(loadAs<Doubles>(tiny.y1 + lane))), bank.fields[SSectionBank::kY1] + lane);
        give(bitsOf(integersOf(loadAs<Doubles>(tiny.y2 + lane))), bank.fields[SSectionBank::kY2] + lane);
    }
}

/// All of the bank as it was before takeTiny().
HWY_INLINE void forgetTiny(SSectionBank& bank)
{
    const std::size_t lanes = bank.vectors() * kWideLanes;
    std::copy_n(bank.tiny.keptY1, lanes, bank.fields[SSectionBank::kY1]);
    std::copy_n(bank.tiny.keptY2, lanes, bank.fields[SSectionBank::kY2]);
}

/// Takes a bank's tiny sections on by one sample of silence after the other. Their outputs stay integers.
template<std::size_t vectors>
class CTinySteps
{
public:
    using Work = SSectionBank;

    HWY_INLINE explicit CTinySteps(SSectionBank& bank) : m_bank(bank), m_done(bank.done)
    {
        for (std::size_t v = 0; v < kVectors; ++v)
        {
            m_y1[v] = loadAs<Doubles>(bank.tiny.y1 + v * kTinyLanes);
            m_y2[v] = loadAs<Doubles>(bank.tiny.y2 + v * kTinyLanes);
            m_back2[v] = loadAs<Doubles>(bank.tiny.minusA2 + v * kTinyLanes) * m_y2[v] + kToInteger;
        }
    }

    HWY_INLINE void step()
    {
        stepVectors(lanesOf(m_done), std::make_index_sequence<kVectors>());
        ++m_done;
    }

    /// Puts the state back.
    HWY_INLINE void finish()
    {
        for (std::size_t v = 0; v < kVectors; ++v)
        {
            storeAs(m_y1[v], m_bank.tiny.y1 + v * kTinyLanes);
            storeAs(m_y2[v], m_bank.tiny.y2 + v * kTinyLanes);
        }
        m_bank.done = m_done;
    }

private:
    static constexpr std::size_t kVectors = vectors * kWideLanes / kTinyLanes;

    template<std::size_t... v>
    HWY_INLINE void stepVectors(std::size_t lanes, std::index_sequence<v...>)
    {
        (stepVector<v>(lanes), ...);
    }

    template<std::size_t v>
    HWY_INLINE void stepVector(std::size_t lanes)
    {
        const STinySections& tiny = m_bank.tiny;
        const Doubles y1 = m_y1[v];
        m_y1[v] = m_back2[v] - (loadAs<Doubles>(tiny.a1 + v * kTinyLanes) * y1 + kToInteger);
        m_back2[v] = loadAs<Doubles>(tiny.minusA2 + v * kTinyLanes) * y1 + kToInteger;
        m_y2[v] = y1;
        constexpr std::size_t kFirst = v * kTinyLanes;
        storeGroups(integersOf(m_y1[v]),
                    m_bank.outputs[kFirst / kSectionsPerGroup] + lanes + kFirst % kSectionsPerGroup);
    }

    HWY_INLINE static void storeGroups(Bits output, float* place)
    {
#if HWY_TARGET == HWY_AVX3
        storeAs(_mm256_castsi256_si128(__m256i(output)), place);
        storeAs(_mm256_extracti128_si256(__m256i(output), 1), place + kLanesOfRun);
#else
        storeAs(output, place);
#endif
    }

    SSectionBank& m_bank;
    std::size_t m_done;
    Doubles m_y1[kVectors], m_y2[kVectors];
    Doubles m_back2[kVectors]; ///< -a2 y2, rounded, plus kToInteger
};

/// The next `frames` samples of silence.
template<std::size_t vectors>
HWY_NOINLINE void runSilence(SSectionBank& bank, std::size_t frames)
{
    CTinySteps<vectors> steps(bank);
    for (std::size_t i = 0; i < frames; ++i)
        steps.step();
    steps.finish();
}

/// Makes floats of the integers that the steps of a run have left as outputs.
/// @return false if a section has grown beyond denormals
HWY_INLINE bool finishTinyOutputs(SSectionBank& bank)
{
    WideBits seen{};
    for (std::size_t g = 0; g < bank.groups; ++g)
    {
        for (std::size_t i = 0; i < lanesFor(bank.done); i += kWideLanes)
        {
            const WideBits bits = bitsOf(loadAs<WideBits>(bank.outputs[g] + i));
            storeAs(bits, bank.outputs[g] + i);
            seen |= bits;
        }
    }
    return !any(seen & kExponent);
}

/// The same and addOutputs() in one, for the first bank; the outputs stay as they are.
HWY_INLINE bool addTinyOutputs(const SSectionBank& bank, float* lanes, std::size_t frames)
{
    WideBits seen{};
    addOutputs(bank, true, lanes, frames, [&seen](const float* place) HWY_ATTR {
        const WideBits bits = bitsOf(loadAs<WideBits>(place));
        seen |= bits;
        return loadAs<WideVector>(&bits);
    });
    return !any(seen & kExponent);
}

} // namespace HWY_NAMESPACE
} // namespace korvodsp
HWY_AFTER_NAMESPACE();

#endif
