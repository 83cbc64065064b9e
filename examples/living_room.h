// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <array>
#include <cmath>
#include <numbers>

/// The room that the examples are about: the recording is made in it, the filter document corrects it.
namespace livingroom {

// x87 precision has one implementation of cos and pow on every machine, so that the generated files are equal
// to the byte everywhere; those of double precision differ in the last bit between processors.
using real = long double;

/// A resonance between walls, heard at one loudspeaker.
struct SRoomMode
{
    real hz;
    real db; ///< how far it stands out
    real q;
};

struct SLoudspeaker
{
    const char* name;
    std::array<SRoomMode, 5> modes;
    real gainDb;  ///< evens out the distances
    real delayMs; ///< likewise
};

inline constexpr std::array<SLoudspeaker, 2> kLoudspeakers = {{{"Left",
                                                                {{{33.0L, 8.0L, 7.0L},
                                                                  {57.0L, 5.5L, 6.0L},
                                                                  {71.0L, 4.0L, 8.0L},
                                                                  {104.0L, 6.0L, 6.0L},
                                                                  {152.0L, 3.0L, 5.0L}}},
                                                                -0.6L,
                                                                0.0L},
                                                               {"Right",
                                                                {{{33.0L, 6.5L, 7.0L},
                                                                  {49.0L, 7.0L, 6.0L},
                                                                  {78.0L, 5.0L, 7.0L},
                                                                  {119.0L, 3.5L, 5.0L},
                                                                  {187.0L, 4.5L, 6.0L}}},
                                                                0.0L,
                                                                0.35L}}};

/// (b0 + b1 z^-1 + b2 z^-2) / (1 + a1 z^-1 + a2 z^-2)
struct SBiquad
{
    real b0 = 1, b1 = 0, b2 = 0;
    real a1 = 0, a2 = 0;
};

/// A bell of `db` decibels at `hz`. The denominator is what single precision can hold, since a document holds
/// single precision and poles this close to 1 do not forgive rounding; the numerator follows from it, so that
/// the gain far away from `hz` stays exactly 1.
inline SBiquad bell(real hz, real db, real q, real fs)
{
    const real omega = 2 * std::numbers::pi_v<real> * hz / fs;
    const real amplitude = std::pow(10.0L, db / 40);
    const real width = std::sin(omega) / (2 * q) / amplitude;
    SBiquad biquad;
    biquad.a1 = static_cast<float>(-2 * std::cos(omega) / (1 + width));
    biquad.a2 = static_cast<float>((1 - width) / (1 + width));
    const real heldWidth = (1 - biquad.a2) / (1 + biquad.a2);
    const real zeroWidth = heldWidth * amplitude * amplitude;
    biquad.b0 = (1 + zeroWidth) / (1 + heldWidth);
    biquad.b1 = biquad.a1;
    biquad.b2 = (1 - zeroWidth) / (1 + heldWidth);
    return biquad;
}

} // namespace livingroom
