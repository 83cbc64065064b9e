// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/delay_gain_estimator.h"

#include <algorithm>
#include <cmath>

#include "toolbox/allocator.h"
#include "toolbox/delay_gain_estimate.h"
#include "toolbox/delay_search.h"
#include "toolbox/helpers.h"

namespace korvotoolbox {

namespace {

constexpr int kNyquistBin = kFftSize / 2;
constexpr int kReach = 10; // samples to each side of the peak

template<typename T>
T* allocate(int count)
{
    return static_cast<T*>(dtb_alloc(static_cast<unsigned long>(count) * sizeof(T)));
}

SBand bandAround(double centreBin, double below, double above)
{
    return {round(centreBin * below), std::min(round(centreBin * above), kNyquistBin)};
}

/// Single precision throughout and in rising order: the mean is the size of the impulse, and so of the
/// answer.
float meanMagnitude(const fftwf_complex* bins, SBand band)
{
    float sum = 0.0F;
    for (int k = band.low; k <= band.high; ++k)
        sum += std::sqrt(bins[k][0] * bins[k][0] + bins[k][1] * bins[k][1]);
    return sum / static_cast<float>(band.high - band.low + 1);
}

} // namespace

void SToolboxRelease::operator()(void* block) const
{
    dtb_free(block);
}

int CDelayGainEstimator::prepare()
{
    if (m_plan)
        return kEstimateDone;
    m_bins.reset(allocate<fftwf_complex>(kFftBins));
    m_samples.reset(allocate<float>(kFftSize));
    int status = kEstimateNoMemory;
    if (m_bins != nullptr && m_samples != nullptr)
    {
        m_plan.emplace(m_samples.get(), m_bins.get());
        if (*m_plan)
            return kEstimateDone;
        status = kEstimateNoPlan;
    }
    m_plan.reset();
    m_samples.reset();
    m_bins.reset();
    return status;
}

SEstimate CDelayGainEstimator::estimate(const float* filter, int length, float centre, EDelaySearch way)
{
    if (filter == nullptr || length <= 4 || length > 2000000 || !(centre >= 0.0F && centre <= 1.0F))
        return {kEstimateBadArgument};
    if (const int status = prepare(); status != kEstimateDone)
        return {status};

    const int used = std::min(length, kFftSize);
    std::copy_n(filter, used, m_samples.get());
    std::fill(m_samples.get() + used, m_samples.get() + kFftSize, 0.0F);
    m_plan->execute();

    const double centreBin = round(centre * 32768.0F);
    const float size = meanMagnitude(m_bins.get(), bandAround(centreBin, 0.95, 1.05));
    const int peak = maxAbsIdx(filter, used);
    const SDelaySearch search{.plan = *m_plan,
                              .samples = m_samples.get(),
                              .bins = m_bins.get(),
                              .usedLength = used,
                              .gain = size,
                              .wide = bandAround(centreBin, 0.793701, 1.259921),
                              .first = std::max(peak - kReach, 0),
                              .last = std::min(peak + kReach, kNyquistBin),
                              .peak = peak};
    if (search.first > search.last)
        return {kEstimateDone, size * 0.0F, peak};

    Positions contenders = Positions().set();
    if (way == EDelaySearch::BySpectrumIfClear)
    {
        const SSpectrumResult result = searchBySpectrum(search);
        if (result.clear)
            return {kEstimateDone, size * static_cast<float>(result.clear->sign), result.clear->delay, way};
        contenders = result.contenders;
    }
    const SAlignment best = searchByTransforms(search, contenders);
    return {kEstimateDone, size * static_cast<float>(best.sign), best.delay};
}

} // namespace korvotoolbox
