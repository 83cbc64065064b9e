// SPDX-License-Identifier: GPL-3.0-or-later
/// @file
/// Pruning of zeros and scaling of poles of a filter under design.
#pragma once

#include <complex>
#include <vector>

#include "korvo_export.h"

namespace korvotoolbox {

/** A complex zero in polar form. */
struct cplxZeroPolarForm
{
    double angle = 0.0;  ///< 0 to 1, where 1 is the Nyquist frequency
    double radius = 0.0; ///< distance from the origin
};

/** Removes the zeros whose angle lies outside the interval from `low` to `high`, edges included; the others
 * keep their order.
 *  @param rate Hz, the sampling rate that the angles belong to
 *  @param low  Hz, from 0 to the Nyquist frequency
 *  @param high Hz, above `low`; may be above the Nyquist frequency
 *  @return false, and nothing changed, if the interval is refused
 *  Threads: any, on different data. Real time: yes. */
KORVO_EXPORT bool discardZerosOutsideFreqInterval(std::vector<cplxZeroPolarForm>& zeros, int rate, double low,
                                                  double high);

/** Pulls poles in until none lies outside `maxRadius`: all of them are scaled alike, those inside as well, so
 * that the set keeps its shape and the outermost lands on `maxRadius`. Where none lies outside, nothing
 * changes.
 *  @param maxRadius 0 to 1
 *  @return false, and nothing changed, for null poles, a count below 1 or a radius out of range
 *  Threads: any, on different data. Real time: yes. */
KORVO_EXPORT bool scalePolesToSafeMaxRadius(std::complex<double>* poles, int count, double maxRadius);

} // namespace korvotoolbox
