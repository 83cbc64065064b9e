// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/toolbox/fault_injection.h"

#include <fftw3.h>

#include <cstdarg>
#include <cstddef>

#include "toolbox/allocator.h"

namespace {

thread_local int s_allocationsLeft = INT_MAX;
thread_local bool s_plansFail = false;

void takeCounters(void* user, const char* format, ...)
{
    auto& accounting = *static_cast<korvotest::SAccounting*>(user);
    va_list values;
    va_start(values, format);
    (void)va_arg(values, unsigned long long); // the size asked for
    accounting.most = va_arg(values, unsigned long long);
    accounting.current = va_arg(values, unsigned long long);
    va_end(values);
}

} // namespace

// The linker sends the library's calls of these names here (--wrap).
extern "C" {
void* __real_MKL_malloc(std::size_t size, int alignment);
void* __wrap_MKL_malloc(std::size_t size, int alignment)
{
    return s_allocationsLeft-- > 0 ? __real_MKL_malloc(size, alignment) : nullptr;
}

fftwf_plan __real_fftwf_plan_dft_r2c_1d(int size, float* in, fftwf_complex* out, unsigned flags);
fftwf_plan __wrap_fftwf_plan_dft_r2c_1d(int size, float* in, fftwf_complex* out, unsigned flags)
{
    return s_plansFail ? nullptr : __real_fftwf_plan_dft_r2c_1d(size, in, out, flags);
}
}

korvotest::SAccounting korvotest::readAccounting()
{
    SAccounting accounting;
    korvotoolbox::dtb_setlogfunction(takeCounters, &accounting);
    korvotoolbox::dtb_alloc(ULONG_MAX);
    korvotoolbox::dtb_setlogfunction(nullptr, nullptr);
    return accounting;
}

korvotest::CFaults::CFaults(int allocations, bool plansFail)
{
    s_allocationsLeft = allocations;
    s_plansFail = plansFail;
}

korvotest::CFaults::~CFaults()
{
    s_allocationsLeft = INT_MAX;
    s_plansFail = false;
}
