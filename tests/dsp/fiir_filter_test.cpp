// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/fiir_filter.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "dsp/aligned_memory.h"
#include "dsp/cpu_features.h"
#include "dsp/fiir_kernels.h"
#include "dsp/kernel_variants.h"
#include "tests/support/fiir_builder.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/random.h"
#include "tests/support/same_bits.h"
#include "tests/support/temp_folder.h"

namespace {

using namespace korvodsp;
using namespace korvotest;

/// a1, a2, b0, b1 of one section after the other.
std::vector<float> sectionsOf(void* handle)
{
    std::vector<float> coefs;
    const float* section = nullptr;
    for (unsigned i = 0; FIIR_EnumBQSection(handle, i, &section); ++i)
        coefs.insert(coefs.end(), section, section + 4);
    EXPECT_EQ(coefs.size(), 4U * FIIR_GetNumOfBQSections(handle));
    return coefs;
}

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
    for (std::size_t i = 0; i < x.size() * taps.size(); ++i)
    {
        const double product = double{taps[i % taps.size()]} * at(i / taps.size(), i % taps.size());
        exact.output[i / taps.size()] += product;
        exact.magnitude[i / taps.size()] += std::abs(product);
    }
    for (std::size_t s = 0; s < sections.size(); s += 4)
    {
        double y1 = 0.0, y2 = 0.0, peak = 0.0;
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

TEST_P(FiirKernels, RealiseTheFilterOfTheDefinitionHoweverTheyAreCalled)
{
    auto random = makeRandom(31);
    for (const unsigned taps : {1U, 3U, 4U, 5U, 15U, 16U, 17U, 61U, 253U})
    {
        for (const unsigned sections : {0U, 1U, 5U})
        {
            SCOPED_TRACE(std::to_string(taps) + " taps, " + std::to_string(sections) + " sections");
            const std::vector<float> h = makeNoise(random, taps);
            const std::vector<float> coefs = makeSections(random, sections);
            const std::vector<float> x = makeNoise(random, 829);
            const FiirHandle filter = makeFiir(GetParam(), h, coefs);
            const auto run = [&](const float* in, float* out, unsigned channel, unsigned stride) {
                float bias = 1e-20F;
                for (unsigned from = 0; const unsigned frames : {0U, 1U, 16U, 33U, 0U, 50U, 729U})
                {
                    FIIR_Process(filter.get(), in + from, out + from, frames, channel, stride);
                    from += frames * stride;
                    bias = -bias;
                    ASSERT_EQ(fieldsOf(filter).denormalBias, bias);
                }
            };
            std::vector<float> y(x.size());
            run(x.data(), y.data(), 0, 1);
            const SExact exact = exactFilter(h, coefs, x);
            for (std::size_t t = 0; t < x.size(); ++t)
                ASSERT_NEAR(double{y[t]}, exact.output[t],
                            (taps + sections + 4) * 0x1p-23 * exact.magnitude[t] + 1e-18)
                    << t;
            CGuardedBuffer<float> block(blockOf(x, 1, 3), 4);
            FIIR_Reset(filter.get());
            run(block.data(), block.data(), 1, 3);
            EXPECT_TRUE(sameBits(block.values(), blockOf(y, 1, 3)));
            EXPECT_TRUE(block.intact());
        }
    }
}

INSTANTIATE_TEST_SUITE_P(All, FiirKernels, testing::Values(kInitSSE, kInitReference, kInitBaseReference));

TEST(FiirFilter, ChoosesTheKernelAtCreation)
{
    const std::pair<int, FiirKernel> kernels[] = {{kInitAuto, kernelVariant().fiir},
                                                  {kInitSSE, kernelVariant().fiir},
                                                  {kInitReference, FIIR_Ref},
                                                  {kInitBaseReference, FIIR_KorvoBaseReference},
                                                  {-1, nullptr},
                                                  {4, nullptr}};
    for (const auto& [kind, kernel] : kernels)
        EXPECT_EQ(fieldsOf(makeFiir(static_cast<EInit>(kind), {1})).process, kernel) << kind;
}

TEST(FiirFilter, CooksSectionsInOrderAndDropsThoseThatAreAllZero)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const FiirHandle filter = makeFiir(
        kInitSSE, {1}, {1, 2, 3, 4, 0, -0.0F, 0, 0, 5, 6, 7, 8, 0, 0, 0, nan, 9, 0, 0, 0, 0, 0, 0, 10});
    ASSERT_EQ(fieldsOf(filter).numCookedGroups, 2U);
    EXPECT_TRUE(sameBits({3, 7, 0, 0,   // b0
                          4, 8, nan, 0, // b1
                          1, 5, 0, 9,   // a1
                          2, 6, 0, 0},  // a2
                         {fieldsOf(filter).cookedSections, 16}));
    EXPECT_TRUE(sameBits({0, 0, 0, 0, 10, 0, 0, 0}, {fieldsOf(filter).cookedSections + 24, 8}));
    EXPECT_EQ(sectionsOf(filter.get()).size(), 24U);
    const FiirHandle bare = makeFiir(kInitSSE, {1}, {0, 0, 0, 0});
    float sample = 1.0F;
    FIIR_Process(bare.get(), &sample, &sample, 1);
    EXPECT_EQ(fieldsOf(bare).prevInput, 0.0F);
    EXPECT_EQ(fieldsOf(bare).numCookedGroups, 0U);
}

TEST(FiirFilter, IsWipedByACountOfTapsThatCannotBeHad)
{
    const float tap = 1.0F;
    for (const unsigned count : {0U, 0xFFFFFFFFU, 0xFFFFFFFDU, 0xFFFFFFFCU, 1U << 28, 1U << 31})
    {
        void* raw = nullptr;
        ASSERT_TRUE(FIIR_InitRaw(kInitAuto, &raw) && FIIR_IsHandleValid(raw));
        const FiirHandle filter(raw, FIIR_Discard);
        EXPECT_TRUE(FIIR_AddBQSection(raw, std::vector{1.0F, 2.0F, 3.0F, 4.0F}.data())); // must go as well
        EXPECT_FALSE(FIIR_SetFIRCoefficients(filter.get(), &tap, count));
        EXPECT_FALSE(FIIR_IsHandleValid(filter.get()));
        const FIIR_FILTER_tag& fields = fieldsOf(filter);
        EXPECT_TRUE(fields.process == nullptr && fields.numTaps == 0 && fields.delayLine == nullptr);
        FIIR_Reset(filter.get());
    }
}

TEST(FiirFilter, IgnoresTheHandlesThatFilterSlotsHold)
{
    FIIR_Reset(nullptr);
    FIIR_Reset(reinterpret_cast<void*>(~std::uintptr_t{0}));
    FIIR_Discard(nullptr);
    const float* values = nullptr;
    EXPECT_EQ(FIIR_GetFIRCoefficients(nullptr, &values), 0U);
    EXPECT_EQ(FIIR_GetNumOfBQSections(nullptr), 0U);
    EXPECT_FALSE(FIIR_EnumBQSection(nullptr, 0, &values) || FIIR_IsHandleValid(nullptr));
}

TEST(FiirText, GivesTapsAndSectionsAndZerosWhereItEnds)
{
    const CTempFolder folder;
    const struct
    {
        std::string text;
        std::vector<float> taps; // none: the text is refused
        std::vector<float> sections;
    } rows[] = {
        {"3 0.5\n-0.25 1e-1\n -1.5 0.75 .25 5\n0 0 0 0  1 2 3 4\nend",
         {0.5F, -0.25F, 0.1F},
         {-1.5F, 0.75F, 0.25F, 5, 0, 0, 0, 0, 1, 2, 3, 4}},
        {"3 1 2", {1, 2, 0}, {}},
        {"2 1 x 3 4 5 6", {1, 0}, {}},
        {"1e9", {0}, {}},
        {"1 1  5 6 7 8  9 10", {1}, {5, 6, 7, 8, 9, 10, 0, 0}},
        {"1 1  5 6 7 8  9 x", {1}, {5, 6, 7, 8, 9, 0, 0, 0}},
        {"", {}, {}},
        {"0 1 2 3 4", {}, {}},
        {"x", {}, {}},
        {"-1 1 2", {}, {}},
        {"4294967295", {}, {}},
        {"2147483648 1", {}, {}},
    };
    for (const auto& [text, taps, sections] : rows)
    {
        SCOPED_TRACE(text);
        int marker = 0;
        void* handle = &marker;
        testing::internal::CaptureStdout();
        ASSERT_EQ(FIIR_InitWithFile(kInitAuto, &handle, folder.write("f", text).c_str()), !taps.empty());
        std::fflush(stdout);
        const std::string printed = testing::internal::GetCapturedStdout();
        if (taps.empty())
        {
            EXPECT_EQ(handle, &marker);
            continue;
        }
        EXPECT_EQ(printed, "\tRead " + std::to_string(taps.size()) + " FIR taps.\n\tRead " +
                               std::to_string(sections.size() / 4) + " IIR taps (0 discarded).\n");
        const FiirHandle filter(handle, FIIR_Discard);
        const float* values = nullptr;
        ASSERT_EQ(FIIR_GetFIRCoefficients(handle, &values), taps.size());
        EXPECT_TRUE(sameBits(taps, {values, taps.size()}));
        EXPECT_EQ(sectionsOf(handle), sections);
        EXPECT_EQ(fieldsOf(filter).numCookedGroups, sections.empty() ? 0U : 1U);
        EXPECT_EQ(fieldsOf(filter).denormalBias, 1e-20F); // it was reset
    }
    void* handle = nullptr;
    EXPECT_FALSE(FIIR_InitWithFile(kInitAuto, &handle, (folder.path() / "missing").c_str()));
}

TEST(AlignedMemory, IsAlignedZeroedAndRefusesAbsurdSizes)
{
    for (const std::size_t bytes : {1U, 15U, 16U, 4097U})
    {
        auto* memory = static_cast<unsigned char*>(alignedAllocZeroed(bytes));
        ASSERT_NE(memory, nullptr);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(memory) % kMemoryAlignment, 0U);
        EXPECT_EQ(std::count(memory, memory + bytes, 0), static_cast<std::ptrdiff_t>(bytes));
        std::memset(memory, 0xFF, bytes);
        alignedFree(memory);
    }
    for (const std::size_t bytes : {std::size_t{0}, std::size_t{kMemoryLimit}, ~std::size_t{0}})
        EXPECT_EQ(alignedAlloc(bytes), nullptr);
}

/// The flags by the bits that they are taken from, under the names that the system has for those bits.
TEST(CpuFeatures, AreTheBitsThatTheSystemNames)
{
    for (const int unknown : {int{ssp_feature_none}, int{ssp_feature_count}, -1})
        EXPECT_FALSE(ssp_is_supported(static_cast<ssp_cpu_feature>(unknown)));
    EXPECT_TRUE(ssp_is_supported(ssp_feature_sse)); // every processor that runs 64-bit code sets that bit
    std::ifstream file("/proc/cpuinfo");
    std::string line;
    while (std::getline(file, line) && line.rfind("flags", 0) != 0)
    {
    }
    if (line.rfind("flags", 0) != 0)
        GTEST_SKIP() << "the system does not say";
    const std::string names[] = {"", "fxsr", "sse", "pni", "tm2", "est", "dca", "sse4_1", "sdbg"};
    const ssp_cpu_features features = ssp_get_cpuid();
    for (int feature = 1; feature < ssp_feature_count; ++feature)
    {
        const bool named = (line + ' ').find(' ' + names[feature] + ' ') != std::string::npos;
        EXPECT_EQ(features.flags[feature] != 0, named) << names[feature];
        EXPECT_EQ(ssp_is_supported(static_cast<ssp_cpu_feature>(feature)), named) << names[feature];
    }
}

} // namespace
