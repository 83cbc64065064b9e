// SPDX-License-Identifier: GPL-3.0-or-later
#include "tests/toolbox/fault_injection.h"

#include <fftw3.h>
#include <gtest/gtest.h>

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <new>

#include "toolbox/allocator.h"

namespace {

void takeCounters(void* user, const char* format, ...)
{
    auto& accounting = *static_cast<korvotest::SAccounting*>(user);
    char text[256];
    va_list values;
    va_start(values, format);
    std::vsnprintf(text, sizeof(text), format, values);
    va_end(values);
    accounting.message += text;
    std::sscanf(text, "%*[^(](max %llu bytes, current %llu)", &accounting.most, &accounting.current);
}

} // namespace

// The linker sends the library's calls of these names here (--wrap).
extern "C" {
void* __real_MKL_malloc(std::size_t size, int alignment);
void* __wrap_MKL_malloc(std::size_t size, int alignment)
{
    return korvotest::CFaults::s_allocationsLeft-- > 0 ? __real_MKL_malloc(size, alignment) : nullptr;
}

fftwf_plan __real_fftwf_plan_dft_r2c_1d(int size, float* in, fftwf_complex* out, unsigned flags);
fftwf_plan __wrap_fftwf_plan_dft_r2c_1d(int size, float* in, fftwf_complex* out, unsigned flags)
{
    return korvotest::CFaults::s_plansFail ? nullptr : __real_fftwf_plan_dft_r2c_1d(size, in, out, flags);
}

void* __real__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag);
void* __wrap__ZnwmRKSt9nothrow_t(std::size_t size, const std::nothrow_t& tag)
{
    return korvotest::CFaults::s_newsLeft-- > 0 ? __real__ZnwmRKSt9nothrow_t(size, tag) : nullptr;
}
}

korvotest::SAccounting korvotest::readAccounting(unsigned long impossibleSize)
{
    SAccounting accounting;
    korvotoolbox::dtb_setlogfunction(takeCounters, &accounting);
    EXPECT_EQ(korvotoolbox::dtb_alloc(impossibleSize), nullptr);
    korvotoolbox::dtb_setlogfunction(nullptr, nullptr);
    return accounting;
}
