// SPDX-License-Identifier: GPL-3.0-or-later
/// @file
/// The one transform of the toolbox: 65536 real values to 32769 complex bins, forward, not normalised.
///
/// FFTW's planner is not re-entrant, and a host may use the same FFTW. Two things keep plans safe: within the
/// library they are made and destroyed under one lock; towards the host, FFTW's own planner lock is switched
/// on when the library is loaded.
#pragma once

#include <fftw3.h>

namespace korvotoolbox {

constexpr int kFftSize = 65536;
constexpr int kFftBins = kFftSize / 2 + 1;

/// A plan for two fixed arrays, made without measuring and without touching them. For a short time, not for
/// the life of the process: fftwf_cleanup(), which a host may call whenever it makes no use of the library,
/// invalidates it.
class CFftPlan
{
public:
    CFftPlan(float* samples, fftwf_complex* bins);
    ~CFftPlan();
    CFftPlan(const CFftPlan&) = delete;
    CFftPlan& operator=(const CFftPlan&) = delete;

    /// False if no plan could be made; nothing but destruction is allowed then.
    explicit operator bool() const { return m_plan != nullptr; }

    /// Transforms what the samples now hold into the bins.
    void execute() const { fftwf_execute(m_plan); }

private:
    fftwf_plan m_plan;
};

} // namespace korvotoolbox
