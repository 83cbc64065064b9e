// SPDX-License-Identifier: GPL-3.0-or-later
/// @file
/// Small general functions that the rest of the toolbox is built on.
/// Threads: any, on different data. Real time: yes, all of them.
#pragma once

#include "korvo_export.h"

namespace korvotoolbox {

/** The nearest whole number, halves away from zero: the truncation of value + 0.5, or of value - 0.5 below
 * zero. The addition is done in the argument's own precision, so 0.49999997F gives 1. What lies outside the
 * range of int gives the nearest int, NaN gives INT_MIN. */
KORVO_EXPORT int round(double value);
KORVO_EXPORT int round(float value);

/** Index of the largest of `length` values, the first one of several. NaN is never larger than another value.
 *  @return -1 for a length below 1; 0 for a length of 1, whatever the pointer */
KORVO_EXPORT int maxIdx(const float* values, int length);
KORVO_EXPORT int maxIdx(const double* values, int length);

/** Index of the value of largest magnitude, the first one of several.
 *  @return -1 for null or a length below 1 */
KORVO_EXPORT int maxAbsIdx(const float* values, int length);
KORVO_EXPORT int maxAbsIdx(const double* values, int length);

/** Whether the toolbox takes `rate`: 44100, 48000, 88200 or 96000 Hz. */
KORVO_EXPORT bool fsIsSupported(int rate);

/** The size nearest to `length`, and not below it, that a transform handles well: a product
 *  2^a * 3^b * 5^c * 7^d * 11^e with a up to 21, b, c, d up to 3 and e up to 1. 1025 gives 1029.
 *  @return 0 for a length below 8, or where no such size lies below twice the length. Products wrap around at
 * 32 bits, so a length in the hundreds of millions may get a size that is no such product. */
KORVO_EXPORT int nearestFFTWSize(int length);

} // namespace korvotoolbox
