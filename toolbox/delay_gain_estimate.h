// SPDX-License-Identifier: GPL-3.0-or-later
/// @file
/// Which plain delay and gain come closest to a filter around one frequency.
#pragma once

#include "korvo_export.h"

namespace korvotoolbox {

/** Status codes of estimateFilterDelayGain(). */
enum EEstimateStatus
{
    kEstimateDone = 0,
    kEstimateBadArgument = 173,
    kEstimateNoMemory = 174,
    kEstimateNoPlan = 175
};

/** Finds the delay and the signed gain of the impulse that lines up best with a filter: added to the filter,
 * it raises the summed magnitude within a third of an octave of the centre the most. Its size is the filter's
 * mean magnitude within 5 % of the centre; its position is searched within 10 samples of the filter's largest
 * tap.
 *
 *  The transform has 65536 points whatever the length; samples beyond those are not looked at. A largest tap
 * beyond sample 32778 gives gain 0 and the delay of that tap; a filter of zeros gives gain 0 and delay 0.
 *  @param filter impulse response
 *  @param length samples of `filter`, 5 to 2000000
 *  @param centre fraction of the Nyquist frequency, 0 to 1
 *  @param gain   receives the linear gain, negative for an inverted filter; written on status 0 only
 *  @param delay  receives the delay in samples; written on status 0 only
 *  @return 0 done; 173 null filter, or length or centre out of range (NaN as well); 174 no memory for the two
 *          buffers of 256 KiB, which come from dtb_alloc(); 175 no transform could be planned
 *  @throws boost::lock_error as dtb_alloc() does
 *  Threads: any, several at once. Real time: no. */
KORVO_EXPORT int estimateFilterDelayGain(const float* filter, int length, float centre, float& gain,
                                         int& delay);

} // namespace korvotoolbox
