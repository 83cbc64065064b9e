// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/measurer.h"

#include <cmath>
#include <cstddef>

#include "dsp/aligned_memory.h"
#include "dsp/buffer_operations.h"

namespace korvodsp {

CFMeasurer::CFMeasurer(unsigned windowLength)
{
    reset(windowLength);
}

CFMeasurer::~CFMeasurer()
{
    reset(0);
}

void CFMeasurer::reset(unsigned windowLength)
{
    alignedFree(window);
    window = nullptr;
    pos = 0;
    length = 0;
    sumOfSquares = 0.0;
    peak = 0.0F;
    rms = 0.0F;
    if (windowLength == 0)
        return;
    window = static_cast<float*>(alignedAllocZeroed(std::size_t{windowLength} * sizeof(float)));
    if (window == nullptr)
        return;
    length = windowLength;
}

void CFMeasurer::process(const float* samples, unsigned count)
{
    if (window == nullptr)
        return;
    // Locals, since the compiler has to take the ring for a possible home of the members.
    double sum = sumOfSquares;
    unsigned slot = pos;
    for (unsigned i = 0; i < count; ++i)
    {
        const float square = samples[i] * samples[i];
        sum -= static_cast<double>(window[slot]);
        window[slot] = square;
        sum += static_cast<double>(square);
        slot = slot + 1 == length ? 0 : slot + 1;
    }
    sumOfSquares = sum;
    pos = slot;
    // Unguarded: a small negative residue of the sum gives NaN.
    rms = std::sqrt(static_cast<float>(sum / length));
    peak = std::sqrt(MaxValue(window, length));
}

float CFMeasurer::getCurrentRMS() const
{
    return rms;
}

float CFMeasurer::getCurrentPeak() const
{
    return peak;
}

float CFMeasurer::getCurrentCrestFactor() const
{
    // RMS over peak, and not the reverse; 1000 marks silence.
    return peak > 0.0F ? rms / peak : 1000.0F;
}

} // namespace korvodsp
