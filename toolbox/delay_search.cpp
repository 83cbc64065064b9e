// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/delay_search.h"

#include <cmath>
#include <cstddef>

namespace korvotoolbox {

namespace {

float transformAndSum(const SDelaySearch& search)
{
    search.plan.execute();
    float sum = 0.0F;
    for (int k = search.wide.low; k <= search.wide.high; ++k)
    {
        const float re = search.bins[k][0];
        const float im = search.bins[k][1];
        sum += std::sqrt(re * re + im * im);
    }
    return sum;
}

} // namespace

SAlignment searchByTransforms(const SDelaySearch& search, Positions contenders)
{
    SAlignment best{search.peak, 0};
    float bestScore = 0.0F;
    for (int i = search.first; i <= search.last; ++i)
    {
        const bool contends = contenders.test(static_cast<std::size_t>(i - search.first));
        // Taken off twice and put back, not restored: the residue belongs to the result.
        float& sample = search.samples[i];
        sample += search.gain;
        const float plus = contends ? transformAndSum(search) : 0.0F;
        sample -= search.gain;
        sample -= search.gain;
        const float minus = contends ? transformAndSum(search) : 0.0F;
        sample += search.gain;

        if (plus > minus && plus > bestScore)
        {
            best = {i, +1};
            bestScore = plus;
        }
        else if (minus > bestScore)
        {
            best = {i, -1};
            bestScore = minus;
        }
    }
    return best;
}

} // namespace korvotoolbox
