// SPDX-License-Identifier: GPL-3.0-or-later
/// @file
/// Levels of arrays, the shaping of a magnitude spectrum, and the index of a logarithmic one.
/// Threads: any, on different data. Real time: yes, all of them.
#pragma once

#include "korvo_export.h"

namespace korvotoolbox {

/** Status codes of the level conversions. */
enum ELevelStatus
{
    kLevelDone = 0,
    kAbs2dBBadArgument = 143,
    kPwr2dBBadArgument = 144,
    kDB2magnBadArgument = 145,
    kDB2pwrBadArgument = 146
};

/** Magnitude to level, in place: x becomes 20 log10(x), in dB. A zero becomes minus infinity; with `guard`
 * set, 1e-9 is added first, and it becomes -180 dB. What is below zero becomes NaN.
 *  @return 0 done; 143 null data or a length below 1 */
KORVO_EXPORT int abs2dB(float* data, int length, bool guard);

/** Power to level, in place: x becomes 10 log10(x), in dB; `guard` as in abs2dB(), so a zero becomes -90 dB.
 *  @return 0 done; 144 null data or a length below 1 */
KORVO_EXPORT int pwr2dB(float* data, int length, bool guard);

/** Level to power, in place: x in dB becomes 10^(x / 10). The inverse of pwr2dB() without guard.
 *  @return 0 done; 146 null data or a length below 1 */
KORVO_EXPORT int dB2pwr(float* data, int length);

/** x becomes (0.05 x)^10, in place. Beware: this is NOT the inverse of abs2dB(); 0 dB gives 0 and not 1.
 *  @return 0 done; 145 null data or a length below 1 */
KORVO_EXPORT int dB2magn(float* data, int length);

/** Multiplies a magnitude spectrum by a slope on one side of a corner frequency. With c the bin of the
 * corner, rounded up:
 *  - below the corner, bins k = 0 to c are multiplied by ((k + 1) / c)^(-s), so the lowest are cut most;
 *  - above it, bins k = c to the last are multiplied by ((k - c + 1) / c)^s. Counted from the corner, not
 * from zero: the gain is largest at the corner itself and comes down to 1 at bin 2 c - 1. s is the exponent
 * that makes a doubling of the ratio `rollOff` dB.
 *  @param spectrum bins + 1 magnitudes, from zero frequency to the Nyquist frequency
 *  @param bins     index of the Nyquist bin, 64 or more
 *  @param rollOff  dB per octave, from -96 to below 0
 *  @param corner   Hz, above 4 and below rate / 2 - 10, and farther than 4 * bins / (rate / 2) from both ends
 *  @param rate     Hz, one of fsIsSupported()
 *  @param below    which side is cut
 *  @return false, and nothing changed, if an argument is refused */
KORVO_EXPORT bool applyRollOffToSpectrum(float* spectrum, int bins, float rollOff, int corner, int rate,
                                         bool below);

/** Index of a frequency, to the nearest point, on a logarithmic axis from `lowest` (index 0) to `highest`
 * (index points - 1). All in Hz.
 *  @param points 2 or more; 1 gives index 0
 *  @return -1 unless 0.5 <= lowest <= frequency <= highest <= 192000. NaN is not told from a frequency in
 *          range and gives 0; so does an axis whose ends are the same */
KORVO_EXPORT int getLogSpecIndex(float frequency, float highest, float lowest, int points);

} // namespace korvotoolbox
