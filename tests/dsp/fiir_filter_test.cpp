// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/fiir_filter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "dsp/aligned_memory.h"
#include "dsp/cpu_features.h"
#include "dsp/fiir_kernels.h"
#include "tests/support/fiir_builder.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/random.h"
#include "tests/support/temp_folder.h"

namespace {

using namespace korvodsp;
using korvotest::FiirHandle;
using korvotest::makeFiir;

/// The filter as its definition has it, in double precision, with the sum of the magnitudes of all that was
/// added up: what rounding errors are proportional to.
struct SExact
{
    std::vector<double> output;
    std::vector<double> magnitude;
};

SExact exactFilter(const std::vector<float>& taps, const std::vector<float>& sections,
                   const std::vector<float>& x)
{
    SExact exact{std::vector<double>(x.size()), std::vector<double>(x.size())};
    const auto at = [&](std::size_t t, std::size_t delay) { return t >= delay ? double{x[t - delay]} : 0.0; };
    for (std::size_t t = 0; t < x.size(); ++t)
    {
        for (std::size_t k = 0; k < taps.size(); ++k)
        {
            exact.output[t] += double{taps[k]} * at(t, k);
            exact.magnitude[t] += std::abs(double{taps[k]} * at(t, k));
        }
    }
    for (std::size_t s = 0; s < sections.size(); s += 4)
    {
        double y1 = 0.0;
        double y2 = 0.0;
        double peak = 0.0;
        for (std::size_t t = 0; t < x.size(); ++t)
        {
            const double y = double{sections[s + 2]} * at(t, taps.size()) +
                             double{sections[s + 3]} * at(t, taps.size() + 1) - double{sections[s]} * y1 -
                             double{sections[s + 1]} * y2;
            y2 = y1;
            y1 = y;
            peak = std::max(peak, std::abs(y));
            exact.output[t] += y;
            // A resonance of pole radius 0.9 sums its past rounding errors with a gain below 1 / (1 - 0.9)^2.
            exact.magnitude[t] += 100.0 * peak + 10.0;
        }
    }
    return exact;
}

class FiirKernels : public testing::TestWithParam<EInit>
{
};

TEST_P(FiirKernels, RealiseTheFilterOfTheDefinition)
{
    auto random = korvotest::makeRandom(31);
    for (const unsigned taps : {1U, 3U, 4U, 5U, 15U, 16U, 17U, 61U, 253U})
    {
        for (const unsigned sections : {0U, 1U, 5U})
        {
            const std::vector<float> h = korvotest::makeNoise(random, taps);
            const std::vector<float> coefs = korvotest::makeSections(random, sections);
            const std::vector<float> x = korvotest::makeNoise(random, 3 * taps + 70);
            const SExact exact = exactFilter(h, coefs, x);
            const FiirHandle filter = makeFiir(GetParam(), h, coefs);
            std::vector<float> y(x.size());
            FIIR_Process(filter.get(), x.data(), y.data(), static_cast<unsigned>(x.size()));
            const double epsilon = std::numeric_limits<float>::epsilon();
            for (std::size_t t = 0; t < x.size(); ++t)
                ASSERT_NEAR(double{y[t]}, exact.output[t],
                            (taps + sections + 4) * epsilon * exact.magnitude[t] + 1e-18)
                    << taps << " taps, " << sections << " sections, sample " << t;
        }
    }
}

TEST_P(FiirKernels, GiveTheSameBitsInPlaceInPiecesAndAcrossAStride)
{
    auto random = korvotest::makeRandom(32);
    const std::vector<float> h = korvotest::makeNoise(random, 21);
    const std::vector<float> coefs = korvotest::makeSections(random, 5);
    const std::vector<float> x = korvotest::makeNoise(random, 200);
    // The scalar kernels' bias changes sign with every call, so all run in calls of the same lengths, 0
    // included.
    const std::vector<unsigned> calls = {0, 1, 16, 33, 0, 50, 100};
    std::vector<float> expected(x.size());
    const FiirHandle apart = makeFiir(GetParam(), h, coefs);
    const FiirHandle strided = makeFiir(GetParam(), h, coefs);
    korvotest::CGuardedBuffer<float> block(3 * x.size(), 4);
    for (std::size_t i = 0; i < 3 * x.size(); ++i)
        block.set(i, i % 3 == 1 ? x[i / 3] : 7.0F);
    std::size_t from = 0;
    for (const unsigned frames : calls)
    {
        FIIR_Process(apart.get(), x.data() + from, expected.data() + from, frames);
        FIIR_Process(strided.get(), block.data() + 3 * from, block.data() + 3 * from, frames, 1, 3);
        from += frames;
    }
    for (std::size_t i = 0; i < 3 * x.size(); ++i)
        ASSERT_EQ(block.get(i), i % 3 == 1 ? expected[i / 3] : 7.0F) << i;
    EXPECT_TRUE(block.intact());
}

TEST_P(FiirKernels, StartOverAfterReset)
{
    auto random = korvotest::makeRandom(33);
    const FiirHandle filter =
        makeFiir(GetParam(), korvotest::makeNoise(random, 12), korvotest::makeSections(random, 3));
    const std::vector<float> x = korvotest::makeNoise(random, 99);
    std::vector<float> first(x.size());
    std::vector<float> second(x.size());
    FIIR_Process(filter.get(), x.data(), first.data(), 99);
    FIIR_Reset(filter.get());
    FIIR_Process(filter.get(), x.data(), second.data(), 99);
    EXPECT_EQ(first, second);
}

TEST_P(FiirKernels, OneTapThenTheSectionsFromTheNextSampleOn)
{
    const FiirHandle filter = makeFiir(GetParam(), {0.5F}, {-0.5F, 0.0F, 2.0F, 1.0F});
    const std::vector<float> impulse = {1, 0, 0, 0, 0, 0};
    std::vector<float> y(impulse.size());
    FIIR_Process(filter.get(), impulse.data(), y.data(), 6);
    const std::vector<float> expected = {0.5F, 2.0F, 2.0F, 1.0F, 0.5F, 0.25F};
    for (std::size_t t = 0; t < y.size(); ++t)
        EXPECT_FLOAT_EQ(y[t], expected[t]) << t; // exact but for the bias, which is far below
}

TEST_P(FiirKernels, FlipTheBiasOncePerCallEvenWithoutFrames)
{
    const FiirHandle filter = makeFiir(GetParam(), {1.0F, 2.0F});
    const auto& fields = *static_cast<const FIIR_FILTER_tag*>(filter.get());
    std::uint32_t bits = 0;
    std::memcpy(&bits, &fields.denormalBias, sizeof(bits));
    EXPECT_EQ(bits, 0x1E3CE508U);
    float sample = 1.0F;
    FIIR_Process(filter.get(), &sample, &sample, 0);
    EXPECT_EQ(fields.denormalBias, -1e-20F);
    EXPECT_EQ(fields.delayPos, 0U);
    FIIR_Process(filter.get(), &sample, &sample, 1);
    EXPECT_EQ(fields.denormalBias, 1e-20F);
}

INSTANTIATE_TEST_SUITE_P(All, FiirKernels, testing::Values(kInitSSE, kInitReference, kInitBaseReference));

TEST(FiirFilter, ChoosesTheKernelAtCreation)
{
    void* handle = nullptr;
    ASSERT_TRUE(FIIR_InitRaw(kInitReference, &handle));
    EXPECT_EQ(static_cast<FIIR_FILTER_tag*>(handle)->process, &FIIR_Ref);
    FIIR_Discard(handle);
    ASSERT_TRUE(FIIR_InitRaw(kInitBaseReference, &handle));
    EXPECT_EQ(static_cast<FIIR_FILTER_tag*>(handle)->process, &FIIR_KorvoBaseReference);
    FIIR_Discard(handle);
    ASSERT_TRUE(FIIR_InitRaw(kInitAuto, &handle));
    EXPECT_NE(static_cast<FIIR_FILTER_tag*>(handle)->process, &FIIR_Ref);
    EXPECT_TRUE(FIIR_IsHandleValid(handle));
    FIIR_Discard(handle);
    for (const int unknown : {-1, 4, 1000})
    {
        ASSERT_TRUE(FIIR_InitRaw(static_cast<EInit>(unknown), &handle));
        EXPECT_EQ(static_cast<FIIR_FILTER_tag*>(handle)->process, nullptr);
        EXPECT_TRUE(FIIR_IsHandleValid(handle));
        FIIR_Discard(handle);
    }
}

TEST(FiirFilter, KeepsRotatedCopiesOfTheTapsTwiceInARow)
{
    const FiirHandle filter = makeFiir(kInitAuto, {1, 2, 3, 4, 5});
    const auto& fields = *static_cast<const FIIR_FILTER_tag*>(filter.get());
    EXPECT_EQ(fields.paddedTaps, 8U);
    EXPECT_EQ(fields.tapPadding, 3U);
    const std::vector<std::vector<float>> copies = {{1, 2, 3, 4, 5, 0, 0, 0},
                                                    {0, 1, 2, 3, 4, 5, 0, 0},
                                                    {0, 0, 1, 2, 3, 4, 5, 0},
                                                    {0, 0, 0, 1, 2, 3, 4, 5}};
    for (std::size_t k = 0; k < 4; ++k)
    {
        const float* copy = fields.firCoefs[k];
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(copy) % 16, 0U);
        EXPECT_EQ(std::vector<float>(copy, copy + 8), copies[k]);
        EXPECT_EQ(std::vector<float>(copy + 8, copy + 16), copies[k]);
    }
    const float* taps = nullptr;
    EXPECT_EQ(FIIR_GetFIRCoefficients(filter.get(), &taps), 5U);
    EXPECT_EQ(taps, fields.firCoefs[0]);
}

TEST(FiirFilter, CooksSectionsInOrderAndDropsThoseThatAreAllZero)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const FiirHandle filter = makeFiir(
        kInitAuto, {1}, {1, 2, 3, 4, 0, -0.0F, 0, 0, 5, 6, 7, 8, 0, 0, 0, nan, 9, 0, 0, 0, 0, 0, 0, 10});
    EXPECT_EQ(FIIR_GetNumOfBQSections(filter.get()), 6U);
    const auto& fields = *static_cast<const FIIR_FILTER_tag*>(filter.get());
    ASSERT_EQ(fields.numCookedGroups, 2U);
    const float* cooked = fields.cookedSections;
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(cooked) % 16, 0U);
    EXPECT_EQ(std::vector<float>(cooked, cooked + 4), (std::vector<float>{3, 7, 0, 0}));       // b0
    EXPECT_TRUE(cooked[4] == 4 && cooked[5] == 8 && std::isnan(cooked[6]) && cooked[7] == 0);  // b1
    EXPECT_EQ(std::vector<float>(cooked + 8, cooked + 12), (std::vector<float>{1, 5, 0, 9}));  // a1
    EXPECT_EQ(std::vector<float>(cooked + 12, cooked + 16), (std::vector<float>{2, 6, 0, 0})); // a2
    EXPECT_EQ(std::vector<float>(cooked + 24, cooked + 32), (std::vector<float>{0, 0, 0, 0, 10, 0, 0, 0}));
    const float* section = nullptr;
    EXPECT_TRUE(FIIR_EnumBQSection(filter.get(), 2, &section));
    EXPECT_EQ(std::vector<float>(section, section + 4), (std::vector<float>{5, 6, 7, 8}));
    EXPECT_FALSE(FIIR_EnumBQSection(filter.get(), 6, &section));
    EXPECT_FALSE(FIIR_EnumBQSection(nullptr, 0, &section));
}

TEST(FiirFilter, LeavesThePreviousInputAloneWithoutSections)
{
    const FiirHandle filter = makeFiir(kInitSSE, {1}, {0, 0, 0, 0});
    const auto& fields = *static_cast<const FIIR_FILTER_tag*>(filter.get());
    EXPECT_EQ(fields.numCookedGroups, 0U);
    std::vector<float> ones(20, 1.0F);
    FIIR_Process(filter.get(), ones.data(), ones.data(), 20);
    EXPECT_EQ(fields.prevInput, 0.0F);
}

TEST(FiirFilter, IsWipedByACountOfTapsThatCannotBeHad)
{
    const float tap = 1.0F;
    for (const unsigned count : {0U, 0xFFFFFFFFU, 0xFFFFFFFDU, 0xFFFFFFFCU, 1U << 28, 1U << 31})
    {
        void* handle = nullptr;
        ASSERT_TRUE(FIIR_InitRaw(kInitAuto, &handle));
        EXPECT_TRUE(FIIR_IsHandleValid(handle));
        EXPECT_FALSE(FIIR_SetFIRCoefficients(handle, &tap, count));
        EXPECT_FALSE(FIIR_IsHandleValid(handle));
        const FIIR_FILTER_tag wiped{};
        const auto& fields = *static_cast<const FIIR_FILTER_tag*>(handle);
        EXPECT_EQ(fields.process, wiped.process);
        EXPECT_EQ(fields.numTaps, 0U);
        EXPECT_EQ(fields.delayLine, nullptr);
        FIIR_Reset(handle);
        FIIR_Discard(handle);
    }
}

TEST(FiirFilter, IgnoresTheHandlesThatFilterSlotsHold)
{
    FIIR_Reset(nullptr);
    FIIR_Reset(reinterpret_cast<void*>(~std::uintptr_t{0}));
    FIIR_Discard(nullptr);
    const float* taps = nullptr;
    EXPECT_EQ(FIIR_GetFIRCoefficients(nullptr, &taps), 0U);
    EXPECT_EQ(FIIR_GetNumOfBQSections(nullptr), 0U);
    EXPECT_FALSE(FIIR_IsHandleValid(nullptr));
}

TEST(FiirText, IsReadUpToItsEnd)
{
    const korvotest::CTempFolder folder;
    const auto path =
        folder.write("filter.txt", "3 0.5\n-0.25 1e-1\n -1.5 0.75 0.25 0.5\n0 0 0 0  1 2 3 4\nend");
    void* raw = nullptr;
    testing::internal::CaptureStdout();
    ASSERT_TRUE(FIIR_InitWithFile(kInitAuto, &raw, path.c_str()));
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "\tRead 3 FIR taps.\n\tRead 3 IIR taps (0 discarded).\n");
    const FiirHandle filter(raw, FIIR_Discard);
    const float* taps = nullptr;
    ASSERT_EQ(FIIR_GetFIRCoefficients(raw, &taps), 3U);
    EXPECT_EQ(std::vector<float>(taps, taps + 3), (std::vector<float>{0.5F, -0.25F, 0.1F}));
    const float* section = nullptr;
    ASSERT_TRUE(FIIR_EnumBQSection(raw, 0, &section));
    EXPECT_EQ(std::vector<float>(section, section + 4), (std::vector<float>{-1.5F, 0.75F, 0.25F, 0.5F}));
    EXPECT_EQ(static_cast<FIIR_FILTER_tag*>(raw)->numCookedGroups, 1U);
    EXPECT_EQ(static_cast<FIIR_FILTER_tag*>(raw)->denormalBias, 1e-20F); // it was reset
}

TEST(FiirText, StandsForZerosWhereItGivesNothing)
{
    const korvotest::CTempFolder folder;
    struct SText
    {
        const char* text;
        std::vector<float> taps;
        std::vector<float> lastSection;
    };
    for (const auto& [text, taps, lastSection] :
         {SText{"3 1 2", {1, 2, 0}, {}}, SText{"2 1 x 3 4 5 6", {1, 0}, {}}, SText{"1e9", {0}, {}},
          SText{"1 1  5 6 7 8  9 10", {1}, {9, 10, 0, 0}}, SText{"1 1  5 6 7 8  9 x", {1}, {9, 0, 0, 0}}})
    {
        void* raw = nullptr;
        ASSERT_TRUE(FIIR_InitWithFile(kInitAuto, &raw, folder.write("f", text).c_str())) << text;
        const FiirHandle filter(raw, FIIR_Discard);
        const float* values = nullptr;
        ASSERT_EQ(FIIR_GetFIRCoefficients(raw, &values), taps.size()) << text;
        EXPECT_EQ(std::vector<float>(values, values + taps.size()), taps) << text;
        const unsigned sections = FIIR_GetNumOfBQSections(raw);
        ASSERT_EQ(sections != 0, !lastSection.empty()) << text;
        if (sections == 0)
            continue;
        ASSERT_TRUE(FIIR_EnumBQSection(raw, sections - 1, &values)) << text;
        EXPECT_EQ(std::vector<float>(values, values + 4), lastSection) << text;
    }
}

TEST(FiirText, IsRefusedWithoutTapsAndLeavesTheHandleAlone)
{
    const korvotest::CTempFolder folder;
    int marker = 0;
    for (const std::string text : {"", "0", "0 1 2 3 4", "x", "-1 1 2", "4294967295", "2147483648 1"})
    {
        void* handle = &marker;
        EXPECT_FALSE(FIIR_InitWithFile(kInitAuto, &handle, folder.write("f", text).c_str())) << text;
        EXPECT_EQ(handle, &marker) << text;
    }
    void* handle = &marker;
    EXPECT_FALSE(FIIR_InitWithFile(kInitAuto, &handle, (folder.path() / "missing").c_str()));
    EXPECT_EQ(handle, &marker);
}

TEST(AlignedMemory, IsAlignedZeroedAndRefusesAbsurdSizes)
{
    for (const std::size_t bytes : {1U, 15U, 16U, 4097U})
    {
        auto* memory = static_cast<unsigned char*>(alignedAllocZeroed(bytes));
        ASSERT_NE(memory, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % kMemoryAlignment, 0U);
        for (std::size_t i = 0; i < bytes; ++i)
            EXPECT_EQ(memory[i], 0);
        std::memset(memory, 0xFF, bytes);
        alignedFree(memory);
    }
    EXPECT_EQ(alignedAlloc(0), nullptr);
    EXPECT_EQ(alignedAlloc(kMemoryLimit), nullptr);
    EXPECT_EQ(alignedAlloc(~std::size_t{0}), nullptr);
}

TEST(CpuFeatures, OneByOneAndTogetherAgree)
{
    const ssp_cpu_features all = ssp_get_cpuid();
    for (int feature = 0; feature < ssp_feature_count; ++feature)
        EXPECT_EQ(ssp_is_supported(static_cast<ssp_cpu_feature>(feature)), all.flags[feature] == 1)
            << feature;
    EXPECT_FALSE(ssp_is_supported(ssp_feature_none));
    EXPECT_TRUE(ssp_is_supported(ssp_feature_sse)); // every processor that runs 64-bit code sets that bit
    EXPECT_FALSE(ssp_is_supported(ssp_feature_count));
    EXPECT_FALSE(ssp_is_supported(static_cast<ssp_cpu_feature>(-1)));
}

/// The flags by the bits that they are taken from, under the names that the system has for those bits.
TEST(CpuFeatures, AreTheBitsThatTheSystemNames)
{
    std::ifstream file("/proc/cpuinfo");
    std::string line;
    while (std::getline(file, line) && line.rfind("flags", 0) != 0)
    {
    }
    if (line.rfind("flags", 0) != 0)
        GTEST_SKIP() << "the system does not say";
    const char* const names[] = {nullptr, "fxsr", "sse", "pni", "tm2", "est", "dca", "sse4_1", "sdbg"};
    const ssp_cpu_features features = ssp_get_cpuid();
    for (int feature = 1; feature < ssp_feature_count; ++feature)
        EXPECT_EQ(features.flags[feature] != 0,
                  (line + ' ').find(' ' + std::string(names[feature]) + ' ') != std::string::npos)
            << names[feature];
}

} // namespace
