// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/fft_plan.h"

#include <dlfcn.h>

#include <mutex>

namespace korvotoolbox {

namespace {

std::mutex s_planning;

/// FFTW calls the lock through pointers into libfftw3f_threads. Only this library asks for that one, and a
/// host may close this library while it goes on with FFTW itself: the pointers must stay good.
void keepPlannerLockLoaded()
{
    Dl_info info{};
    if (dladdr(reinterpret_cast<const void*>(&fftwf_make_planner_thread_safe), &info) == 0)
        return;
    if (void* library = dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE))
        dlclose(library);
}

/// Done at load and not before the first plan: by then the host might be inside its own planner, which would
/// come out to give back a lock that it never took.
[[maybe_unused]] const bool s_plannerIsSafe = [] {
    fftwf_make_planner_thread_safe();
    keepPlannerLockLoaded();
    return true;
}();

} // namespace

CFftPlan::CFftPlan(float* samples, fftwf_complex* bins)
{
    const std::lock_guard lock(s_planning);
    m_plan = fftwf_plan_dft_r2c_1d(kFftSize, samples, bins, FFTW_ESTIMATE);
}

CFftPlan::~CFftPlan()
{
    if (m_plan == nullptr)
        return;
    const std::lock_guard lock(s_planning);
    fftwf_destroy_plan(m_plan);
}

} // namespace korvotoolbox
