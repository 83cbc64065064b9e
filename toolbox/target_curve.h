// SPDX-License-Identifier: GPL-3.0-or-later
/// @file
/// Target curves with their flat form, and the validation of microphone calibration data.
#pragma once

#include <vector>

#include "korvo_export.h"

namespace korvotoolbox {

/** One point of a curve. */
struct targetBreakPointS
{
    float frequency = 0.0F; ///< Hz
    float level = 0.0F;     ///< dB
};

/** A target curve with eight settings, which the library carries and gives no meaning.
 *
 *  The flat form is an array of float, 8 + 2 * number of points long, at least 12:
 *
 *      0 valueB   1 valueA   2 valueC   3 valueD
 *      4 countB   5 countA   6 flagB    7 flagA      whole numbers; a flag is 0 or 1
 *      8 frequency and 9 level of the first point, 10 and 11 of the second, and so on
 */
struct targetParamS
{
    std::vector<targetBreakPointS> innerBreakPoints; ///< `breakPoints` without its first and its last
    std::vector<targetBreakPointS> breakPoints;      ///< the whole curve
    bool flagA = false;
    bool flagB = false;
    float valueA = 0.0F;
    float valueB = 0.0F;
    int countA = 0;
    int countB = 0;
    float valueC = 0.0F;
    float valueD = 0.0F;
};

/** Reads a flat form. Beware: the points are put behind those that `target` has already.
 *
 *  Counts and flags are truncated; what no int can hold becomes the nearest one, so that NaN is a set flag.
 *  @param length values of `array`: even, 12 or more
 *  @param target the structure to fill; if null, a new one, which the caller deletes
 *  @return false, and nothing made or changed, for a null array or a bad length, or if memory is out
 *  Threads: any, on different data. Real time: no. */
KORVO_EXPORT bool arrayToTargetStruct(const float* array, int length, targetParamS*& target);

/** Writes the flat form of a curve; `innerBreakPoints` has no part in it.
 *  @param array  room for the flat form; if null, a new array, which the caller releases with dtb_free()
 *  @param length values of `array`, which must be just as many as the flat form has; not looked at if `array`
 * is null. Receives that number
 *  @return false, and nothing written, for a null target, a length that does not fit, or if memory is out
 *  Threads: any, on different data. Real time: no. */
KORVO_EXPORT bool targetStructToArray(float*& array, int& length, const targetParamS* target);

/** Whether a list of points can be the calibration of a microphone: at least 8 points; frequencies strictly
 * rising, the first from 0 to 5000 Hz and the last from 10000 to 192000 Hz; the highest level from -100 to
 * 100 dB and the lowest from -200 to 100 dB. NaN anywhere is not valid. Threads: any. Real time: no. */
KORVO_EXPORT bool isValidMicCalibrationData(std::vector<targetBreakPointS> points);

} // namespace korvotoolbox
