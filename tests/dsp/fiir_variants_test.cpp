// SPDX-License-Identifier: GPL-3.0-or-later
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "dsp/fiir_filter.h"
#include "dsp/kernel_variants.h"
#include "tests/support/fiir_builder.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/plain_fiir.h"
#include "tests/support/random.h"

// Every variant of the vector kernel gives the bits of the plain one, whatever the filter and however the
// signal is cut into blocks.
namespace {

using namespace korvodsp;
using korvotest::FiirHandle;
using korvotest::makeFiir;

/// Equal to the bit, any NaN being as good as any other: which operand's payload survives is no part of the
/// result.
bool same(float a, float b)
{
    return std::bit_cast<std::uint32_t>(a) == std::bit_cast<std::uint32_t>(b) ||
           (std::isnan(a) && std::isnan(b));
}

struct SCase
{
    unsigned taps;
    unsigned sections;
    bool special; ///< infinities and NaN among the samples
};

std::vector<float> makeSignal(std::mt19937& random, std::size_t count, bool special)
{
    std::vector<float> signal = korvotest::makeNoise(random, count);
    for (float& x : signal)
    {
        switch (random() % 16)
        {
        case 0:
            x = 0.0F;
            break;
        case 1:
            x = -0.0F;
            break;
        case 2:
            x *= 1e-38F; // denormal, or a product with a tap is
            break;
        case 3:
            x *= 1e-20F;
            break;
        default:
            break;
        }
    }
    const float infinity = std::numeric_limits<float>::infinity();
    for (unsigned i = 0; special && i < 6; ++i)
        signal[random() % count] =
            std::vector<float>{infinity, -infinity, std::nanf(""), 3e38F}[random() % 4];
    return signal;
}

/// Sections of which every third is all zero.
std::vector<float> makeGappedSections(std::mt19937& random, unsigned count)
{
    std::vector<float> coefs = korvotest::makeSections(random, count);
    for (unsigned s = 2; s < count; s += 3)
        std::fill_n(coefs.begin() + 4 * s, 4, 0.0F);
    return coefs;
}

void expectPlainBits(const SKernelVariant& variant, const SCase& c, std::mt19937& random)
{
    SCOPED_TRACE(std::string(variant.name) + ", " + std::to_string(c.taps) + " taps, " +
                 std::to_string(c.sections) + " sections" + (c.special ? ", special values" : ""));
    const std::vector<float> taps = makeSignal(random, c.taps, false);
    const std::vector<float> sections = makeGappedSections(random, c.sections);
    const FiirHandle subject = makeFiir(kInitSSE, taps, sections);
    const FiirHandle plain = makeFiir(kInitSSE, taps, sections);
    static_cast<FIIR_FILTER_tag*>(subject.get())->process = variant.fiir;
    const std::vector<float> signal = makeSignal(random, 900, c.special);
    for (std::size_t from = 0; from < signal.size();)
    {
        const auto frames =
            static_cast<unsigned>(std::min<std::size_t>(random() % 301, signal.size() - from));
        const unsigned stride = 1 + static_cast<unsigned>(random() % 8);
        const unsigned channel = static_cast<unsigned>(random()) % stride;
        const bool inPlace = random() % 2 == 0;
        std::vector<float> expected(frames);
        korvotest::plainFiir(plain.get(), signal.data() + from, expected.data(), frames, 0, 1);
        korvotest::CGuardedBuffer<float> in(frames * stride, 4 * (random() % 16));
        korvotest::CGuardedBuffer<float> out(frames * stride, 4 * (random() % 16));
        for (std::size_t i = 0; i < frames * stride; ++i)
        {
            in.set(i, i % stride == channel ? signal[from + i / stride] : 5.0F);
            out.set(i, 5.0F);
        }
        korvotest::CGuardedBuffer<float>& result = inPlace ? in : out;
        FIIR_Process(subject.get(), in.data(), result.data(), frames, channel, stride);
        for (std::size_t i = 0; i < frames * stride; ++i)
        {
            const float wanted = i % stride == channel ? expected[i / stride] : 5.0F;
            ASSERT_TRUE(same(result.get(i), wanted))
                << "element " << i << " of " << frames << " x " << stride << " at sample " << from << ": "
                << result.get(i) << " for " << wanted;
        }
        ASSERT_TRUE(in.intact() && out.intact());
        from += frames;
    }
    const auto& a = *static_cast<const FIIR_FILTER_tag*>(subject.get());
    const auto& b = *static_cast<const FIIR_FILTER_tag*>(plain.get());
    EXPECT_EQ(a.delayPos, b.delayPos);
    EXPECT_EQ(a.denormalBias, b.denormalBias);
    EXPECT_TRUE(same(a.prevInput, b.prevInput));
    EXPECT_TRUE(std::equal(a.delayLine, a.delayLine + a.paddedTaps, b.delayLine, same));
    EXPECT_TRUE(std::equal(a.cookedSections, a.cookedSections + a.numCookedGroups * kFloatsPerGroup,
                           b.cookedSections, same));
}

class FiirVariants : public testing::TestWithParam<std::size_t>
{
protected:
    const SKernelVariant& variant() const { return kernelVariants()[GetParam()]; }
};

TEST_P(FiirVariants, GiveTheBitsOfThePlainLoopForAnyNumberOfTaps)
{
    auto random = korvotest::makeRandom(41);
    for (unsigned taps = 1; taps <= 70; ++taps)
    {
        for (const bool special : {false, true})
            ASSERT_NO_FATAL_FAILURE(expectPlainBits(variant(), {taps, taps % 3 * 4, special}, random));
    }
    for (const unsigned taps : {95U, 128U, 251U, 480U, 1023U, 1024U, 4095U})
    {
        for (const bool special : {false, true})
            ASSERT_NO_FATAL_FAILURE(expectPlainBits(variant(), {taps, 5, special}, random));
    }
}

TEST_P(FiirVariants, GiveTheBitsOfThePlainLoopForAnyNumberOfSections)
{
    auto random = korvotest::makeRandom(42);
    for (unsigned sections = 0; sections <= 37; ++sections)
    {
        for (const unsigned taps : {1U, 63U, 64U})
        {
            for (const bool special : {false, true})
                ASSERT_NO_FATAL_FAILURE(expectPlainBits(variant(), {taps, sections, special}, random));
        }
    }
}

TEST_P(FiirVariants, CanBeForcedByName)
{
    ASSERT_TRUE(forceKernelVariant(variant().name));
    const FiirHandle filter = makeFiir(kInitAuto, {1});
    EXPECT_EQ(static_cast<const FIIR_FILTER_tag*>(filter.get())->process, variant().fiir);
    EXPECT_FALSE(forceKernelVariant("abacus"));
    EXPECT_STREQ(kernelVariant().name, variant().name);
    EXPECT_TRUE(forceKernelVariant(nullptr));
    EXPECT_STREQ(kernelVariant().name, kernelVariants().front().name);
}

INSTANTIATE_TEST_SUITE_P(All, FiirVariants, testing::Range(std::size_t{0}, kernelVariants().size()),
                         [](const auto& test) { return std::string(kernelVariants()[test.param].name); });

} // namespace
