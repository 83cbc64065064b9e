// SPDX-License-Identifier: GPL-3.0-or-later
#include <algorithm>
#include <cmath>
#include <random>
#include <stdexcept>
#include <vector>

#include "bench/ratio.h"
#include "toolbox/delay_gain_estimator.h"

namespace {

using korvotoolbox::EDelaySearch;

/// 480 taps: an impulse among noise that dies away, as a correction filter for a room has them.
std::vector<float> makeFilter()
{
    std::mt19937 random(6001);
    std::uniform_real_distribution<float> noise(-0.1F, 0.1F);
    std::vector<float> taps(480);
    for (std::size_t i = 40; i < taps.size(); ++i)
        taps[i] = noise(random) * std::exp(-static_cast<float>(i) / 100.0F);
    taps[40] += 1.0F;
    return taps;
}

double measureEstimate()
{
    const std::vector<float> taps = makeFilter();
    korvotoolbox::CDelayGainEstimator estimator; // held for a whole load, so for both sides here
    const auto estimate = [&taps, &estimator](EDelaySearch way) {
        const auto result = estimator.estimate(taps.data(), static_cast<int>(taps.size()), 0.5F, way);
        if (result.status != 0 || result.decidedBy != way)
            throw std::runtime_error("the estimate did not go the way that is measured");
    };
    return korvobench::speedUp([&] { estimate(EDelaySearch::BySpectrumIfClear); },
                               [&] { estimate(EDelaySearch::ByTransforms); });
}

[[maybe_unused]] const bool s_registered =
    korvobench::registerRow({"estimate", "43 transforms", 10.0, 20.0}, measureEstimate);

} // namespace
