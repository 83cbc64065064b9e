// SPDX-License-Identifier: GPL-3.0-or-later
#include <dlfcn.h>
#include <fftw3.h>
#include <gtest/gtest.h>

#include <complex>
#include <vector>

// This program is linked with FFTW and not with FFTW's threads, so that only the library brings in the
// planner's lock.
TEST(Unload, LeavesAHostThatUsesFftwAsItWas)
{
    std::vector<float> in(64);
    std::vector<std::complex<float>> out(64);
    const auto plan = [&] {
        fftwf_plan made =
            fftwf_plan_dft_r2c_1d(64, in.data(), reinterpret_cast<fftwf_complex*>(out.data()), FFTW_ESTIMATE);
        fftwf_destroy_plan(made);
        return made != nullptr;
    };
    EXPECT_TRUE(plan());
    for (int round = 0; round < 3; ++round)
    {
        void* library = dlopen(KORVO_LIBRARY, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(library, nullptr) << dlerror();
        EXPECT_TRUE(plan());
        EXPECT_EQ(dlclose(library), 0);
        EXPECT_EQ(dlopen(KORVO_LIBRARY, RTLD_NOW | RTLD_NOLOAD), nullptr)
            << "still loaded, so this shows nothing";
        EXPECT_TRUE(plan());
    }
}
