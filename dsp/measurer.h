// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "korvo_export.h"

namespace korvodsp {

/// Sliding level meter of one channel: peak and RMS of the last `length` samples. A new window counts as
/// silence, so the RMS grows from 0 while the window fills. Only reset(), the constructor and the destructor
/// allocate or free; process() and the readings suit an audio thread. One thread at a time.
class KORVO_EXPORT CFMeasurer
{
public:
    /// @param length window in samples; 0 makes a measurer that ignores process()
    explicit CFMeasurer(unsigned length);
    ~CFMeasurer();

    CFMeasurer(const CFMeasurer&) = delete;
    CFMeasurer& operator=(const CFMeasurer&) = delete;

    /// Starts over with silence and a window of `length` samples. If memory is out, which a window of 2^29
    /// samples or more counts as, the measurer is as after reset(0).
    void reset(unsigned length);

    /// Feeds `count` samples and updates the readings, also at `count` 0. Does nothing without a window.
    ///
    /// Per sample: the square that leaves the window is taken off a running sum in double precision, the
    /// square of the new sample, rounded to single, is added to it. The sum is never made anew from the
    /// window: what rounding leaves in it stays until reset(), and if that is negative in a silent window the
    /// RMS is NaN. The same holds after a sample that is infinite or NaN.
    void process(const float* samples, unsigned count);

    /// RMS of the window as of the last process(), linear; 0 after reset().
    float getCurrentRMS() const;
    /// Largest magnitude in the window as of the last process(), linear; 0 after reset().
    float getCurrentPeak() const;
    /// RMS over peak, 0 to 1, the reverse of the usual crest factor; 1000 while the peak is 0.
    float getCurrentCrestFactor() const;

private:
    float* window = nullptr; ///< ring of squared samples, 16-byte aligned
    unsigned pos = 0;        ///< next slot to overwrite
    unsigned length = 0;     ///< of the window
    double sumOfSquares = 0.0;
    float peak = 0.0F;
    float rms = 0.0F;
};

} // namespace korvodsp
