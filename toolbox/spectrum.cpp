// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/spectrum.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
#include <numbers>

#include "toolbox/cblas.h"
#include "toolbox/helpers.h"
#include "toolbox/numeric_kernels.h"
#include "toolbox/truncate.h"

namespace korvotoolbox {

namespace {

void toLevel(float* data, int length, bool guard, float decibels)
{
    if (guard)
        std::for_each(data, data + length, [](float& x) { x += 1e-9F; });
    vslog10_(&length, data, data);
    cblas_sscal(length, decibels, data, 1);
}

/// 10^(log2(ratio) * slope)
float slopeGain(double ratio, double slope)
{
    return static_cast<float>(std::pow(10.0, std::log(ratio) * slope * (1.0 / std::numbers::ln2)));
}

bool cornerIsUsable(int bins, int corner, int rate)
{
    if (corner <= 4 || corner >= rate / 2 - 10)
        return false;
    // Bins per Hz compared with Hz, and meant: the margin at both ends grows with the size of the spectrum.
    const double resolution = bins / (rate * 0.5);
    return 4.0 * resolution <= corner && corner <= rate / 2 - 4.0 * resolution;
}

} // namespace

int abs2dB(float* data, int length, bool guard)
{
    if (data == nullptr || length < 1)
        return kAbs2dBBadArgument;
    toLevel(data, length, guard, 20.0F);
    return kLevelDone;
}

int pwr2dB(float* data, int length, bool guard)
{
    if (data == nullptr || length < 1)
        return kPwr2dBBadArgument;
    toLevel(data, length, guard, 10.0F);
    return kLevelDone;
}

int dB2pwr(float* data, int length)
{
    if (data == nullptr || length < 1)
        return kDB2pwrBadArgument;
    cblas_sscal(length, 0.1F, data, 1);
    std::transform(data, data + length, data, [](float x) { return std::pow(10.0F, x); });
    return kLevelDone;
}

int dB2magn(float* data, int length)
{
    if (data == nullptr || length < 1)
        return kDB2magnBadArgument;
    cblas_sscal(length, 0.05F, data, 1);
    vsPowx(length, data, 10.0F, data); // the array is the base, and meant to be
    return kLevelDone;
}

bool applyRollOffToSpectrum(float* spectrum, int bins, float rollOff, int corner, int rate, bool below)
{
    if (spectrum == nullptr || bins < 64 || !(rollOff < 0.0F && rollOff >= -96.0F) || !fsIsSupported(rate) ||
        !cornerIsUsable(bins, corner, rate))
        return false;

    const double position = static_cast<double>(bins) * corner / (rate * 0.5);
    const auto cornerBin = static_cast<std::ptrdiff_t>(std::ceil(position));
    const double perBin = 1.0 / static_cast<double>(cornerBin);
    const double slope = static_cast<double>(rollOff) / 20.0;
    if (below)
    {
        for (std::ptrdiff_t k = 0; k <= cornerBin; ++k)
            spectrum[k] *= slopeGain(static_cast<double>(k + 1) * perBin, -slope);
        return true;
    }
    // The ratio starts over at the corner instead of following the bin: the curve is meant to look like this.
    for (std::ptrdiff_t k = cornerBin, m = 1; k <= bins; ++k, ++m)
        spectrum[k] *= slopeGain(static_cast<double>(m) * perBin, slope);
    return true;
}

int getLogSpecIndex(float frequency, float highest, float lowest, int points)
{
    if (lowest > highest || highest > 192000.0F || lowest < 0.5F || lowest > frequency || frequency > highest)
        return -1;
    const auto log2 = [](float x) { return std::log(x) / std::log(2.0F); };
    const int lastIndex = points > INT_MIN ? points - 1 : points;
    const float position = log2(frequency / lowest);
    const float spacing = log2(highest / lowest) / static_cast<float>(lastIndex);
    const int index = std::max(truncateToInt(static_cast<double>(position / spacing + 0.5F)), 0);
    return index >= points ? lastIndex : index;
}

} // namespace korvotoolbox
