// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/delay_gain_estimate.h"

#include "toolbox/delay_gain_estimator.h"

namespace korvotoolbox {

int estimateFilterDelayGain(const float* filter, int length, float centre, float& gain, int& delay)
{
    const SEstimate estimate = CDelayGainEstimator().estimate(filter, length, centre);
    if (estimate.status == kEstimateDone)
    {
        gain = estimate.gain;
        delay = estimate.delay;
    }
    return estimate.status;
}

} // namespace korvotoolbox
