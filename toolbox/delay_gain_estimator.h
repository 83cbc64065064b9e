// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <memory>
#include <optional>

#include "toolbox/fft_plan.h"

namespace korvotoolbox {

enum class EDelaySearch
{
    BySpectrumIfClear, ///< one transform, and a few more only where that leaves it open
    ByTransforms       ///< a transform for each candidate
};

struct SEstimate
{
    int status; ///< as estimateFilterDelayGain(); the rest holds on status 0 only
    float gain = 0.0F;
    int delay = 0;
    EDelaySearch decidedBy = EDelaySearch::ByTransforms;
};

struct SToolboxRelease
{
    void operator()(void* block) const;
};

/// estimateFilterDelayGain() for several filters in a row: buffers and plan are made for the first one and
/// kept, which saves a third of the time of each. One per thread, for the time of one load.
class CDelayGainEstimator
{
public:
    /// Both ways of searching give the same answer.
    SEstimate estimate(const float* filter, int length, float centre,
                       EDelaySearch way = EDelaySearch::BySpectrumIfClear);

private:
    int prepare();

    std::unique_ptr<fftwf_complex[], SToolboxRelease> m_bins;
    std::unique_ptr<float[], SToolboxRelease> m_samples;
    std::optional<CFftPlan> m_plan;
};

} // namespace korvotoolbox
