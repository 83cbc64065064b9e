// SPDX-License-Identifier: GPL-3.0-or-later
/** @file
 *  Conditioning of a measured impulse response: find where it starts, cut or shift away what lies before,
 * find and blank lobes between zero crossings.
 *
 *  A response is `length` samples. A level is a linear fraction of the response's largest magnitude, except
 * in the two searches whose names end in "Level". A margin is in milliseconds and becomes samples by
 * truncating margin / 1000 * rate + 0.5, in single precision. Rates are 44100, 48000, 88200 or 96000 Hz.
 *
 *  Arrays that a function replaces come from dtb_alloc(), the new ones too. No function keeps a state or a
 * pointer; calls on different arrays may run at once. None is for the audio thread. */
#pragma once

#include "korvo_export.h"

namespace korvotoolbox {

/** First index with |data[i]| >= `level`, an absolute magnitude.
 *  @return -1 if there is none, for null and for a length below 1 */
KORVO_EXPORT int findIdxWhereAbsFirstExceedsLevel(const float* data, int length, float level);

/** Last index with |data[i]| >= `level`, an absolute magnitude.
 *  @return -1 if there is none, for null and for a length below 1 */
KORVO_EXPORT int findIdxWhereAbsLastExceedsLevel(const float* data, int length, float level);

/** First index, up to the peak, with a magnitude of at least `level` times that of the peak: the level rule
 * for the start of a response. The peak is the first sample of largest magnitude.
 *  @param level 0.001 to 1; 1 finds the peak itself
 *  @return -1 for null, a length below 1 and a level out of range */
KORVO_EXPORT int findIdxWhereAbsFirstExceeds(const float* data, int length, float level);

/** Nearest index before the peak with a magnitude of at least `level` times that of the peak. The peak itself
 * and what follows it are never looked at, unlike in findIdxWhereAbsLastExceedsLevel().
 *  @return -1 if there is none, for null, a length below 1 and a level out of 0.001 to 1 */
KORVO_EXPORT int findIdxWhereAbsLastExceeds(const float* data, int length, float level);

/** The two-threshold rule for the start of a response: the last sample below 1% of the peak that lies before
 * the first sample at 7% of the peak or above; that first sample, if none before it is below 1%.
 *  @return the index; `length` if the peak is not a number; -1 for null or a length below 1 */
KORVO_EXPORT int findIdxOfDataStart(const float* data, int length);

/** The sample at the zero crossing nearest to `index`, after it or (`before`) in front of it. Of the two
 * samples around the crossing it is the one closer to zero, or the one further from `index` if both are
 * equally close. Without a crossing it is the last sample on that side, length - 1 or 0.
 *  @return `index` itself for null, for an index below 1 or above length - 1, and after length - 1 */
KORVO_EXPORT int findIdxOfZeroCrossingBeforeOrAfterIdx(float* data, int length, int index, bool before);

/** Cuts the front of a response at findIdxOfDataStart(). `level` and `margin` are only validated: the
 * thresholds of that rule are fixed.
 *  @param data    from dtb_alloc(); replaced and freed on success
 *  @param length  at least 4; reduced by the samples removed
 *  @param level   above 0, up to 1
 *  @param margin  ms, not below 0
 *  @param rate    Hz
 *  @param removed receives the number of samples cut off
 *  @return 0 done; 157 bad argument; 158 the start lies outside the array; 159 out of memory. Unless 0 is
 * returned, data, length and removed are as before */
KORVO_EXPORT int truncImpStartToLevel(float*& data, int& length, float level, float margin, int rate,
                                      int& removed);

/** Cuts the front of a response `margin` before the first sample that reaches `level` in a copy without noise
 * and rumble: low-pass at 400 Hz and high-pass at 20 Hz, each of Q 0.7 and run forward and backward. What
 * stays is not filtered. A level below 0.001 is valid and cuts nothing. A margin that reaches beyond the
 * first sample cuts nothing either. Arguments as for truncImpStartToLevel().
 *  @return 0 done, with a new array even if nothing was cut; 160 bad argument; 161 a filter could not be
 * made; 162 the start lies outside the array; 163 out of memory. Unless 0 is returned, data, length and
 * removed are as before */
KORVO_EXPORT int truncImpStartToLevelUsingFilteredCopy(float*& data, int& length, float level, float margin,
                                                       int rate, int& removed);

/** Shifts a response towards index 0, so that it begins `margin` before the first sample that reaches
 * `level`, and fills up with zeros. Searches the response as it is. A level below 0.001 is valid and shifts
 * nothing.
 *  @return false, with nothing changed, for arguments that truncImpStartToLevel() refuses */
KORVO_EXPORT bool shiftImpStartToLevel(float* data, int length, float level, float margin, int rate);

/** Moves samples by `shift` places, towards the end if above 0, and zeroes those that became free.
 *  @return false, with nothing changed, for null, a length below 2 and |shift| >= length */
KORVO_EXPORT bool shiftArray(float* data, int length, int shift);

/** Zeroes the 2 * halfWidth samples from centre - halfWidth on, as far as they lie in the array. Does nothing
 * if 2 * halfWidth + 1 exceeds `length`. */
KORVO_EXPORT void setRegionToZero(int centre, int halfWidth, float* data, int length);

/** Zeroes the lobe of one sign around `index`: it and its neighbours up to, and without, the next sample of
 * another sign or 0. If data[index] is 0, a negative lobe right before it is zeroed, and a positive one is
 * not.
 *  @param data, index not validated: data[index] is read, whatever `length` is */
KORVO_EXPORT void zeroBetweenZeroCrossings(float* data, int length, int index);

} // namespace korvotoolbox
