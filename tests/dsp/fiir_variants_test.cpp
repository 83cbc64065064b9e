// SPDX-License-Identifier: GPL-3.0-or-later
#include <algorithm>
#include <limits>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/fiir_builder.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/plain_fiir.h"
#include "tests/support/random.h"
#include "tests/support/same_bits.h"
#include "tests/support/variant_test.h"

// Every variant of the vector kernel gives the bits of the plain one, whatever the filter and however the
// signal is cut into blocks.
namespace {

using namespace korvodsp;
using namespace korvotest;

/// Noise with zeros of both signs and with samples that are denormal, or whose product with a tap is.
std::vector<float> makeSignal(std::mt19937& random, std::size_t count)
{
    std::vector<float> signal = makeNoise(random, count);
    for (float& x : signal)
    {
        if (random() % 4 == 0)
            x *= std::vector{0.0F, 1e-38F, 1e-20F}[random() % 3];
    }
    return signal;
}

/// @param special  infinities and NaN among the samples
void expectPlainBits(const SKernelVariant& variant, unsigned taps, unsigned sections, bool special,
                     std::mt19937& random)
{
    SCOPED_TRACE(std::string(variant.name) + ", " + std::to_string(taps) + " taps, " +
                 std::to_string(sections) + " sections" + (special ? ", special values" : ""));
    const std::vector<float> h = makeSignal(random, taps);
    std::vector<float> coefs = makeSections(random, sections);
    for (unsigned s = 2; s < sections; s += 3)
        std::fill_n(coefs.begin() + 4 * s, 4, 0.0F);
    const FiirHandle subject = makeFiir(kInitSSE, h, coefs);
    const FiirHandle plain = makeFiir(kInitSSE, h, coefs);
    fieldsOf(subject).process = variant.fiir;
    unsigned frames = 0;
    for (unsigned from = 0; from < 900; from += frames)
    {
        frames = std::min(static_cast<unsigned>(random()) % 301, 900 - from);
        const unsigned stride = 1 + random() % 8;
        const unsigned channel = static_cast<unsigned>(random()) % stride;
        std::vector<float> x = makeSignal(random, frames);
        const float infinity = std::numeric_limits<float>::infinity();
        for (unsigned i = 0; special && i < frames / 150; ++i)
            x[random() % frames] = std::vector{infinity, -infinity, std::nanf(""), 3e38F}[random() % 4];
        std::vector<float> y(frames);
        plainFiir(plain.get(), x.data(), y.data(), frames, 0, 1);
        CGuardedBuffer<float> in(blockOf(x, channel, stride), 4 * (random() % 16));
        CGuardedBuffer<float> out(blockOf(x, channel, stride), 4 * (random() % 16));
        CGuardedBuffer<float>& result = random() % 2 == 0 ? in : out;
        FIIR_Process(subject.get(), in.data(), result.data(), frames, channel, stride);
        ASSERT_TRUE(sameBits(result.values(), blockOf(y, channel, stride))) << frames << " x " << stride;
        ASSERT_TRUE(in.intact() && out.intact());
    }
    EXPECT_TRUE(sameBits(stateOf(subject), stateOf(plain)));
}

using FiirVariants = CVariantTest;

TEST_P(FiirVariants, GiveTheBitsOfThePlainLoop)
{
    auto random = makeRandom(41);
    std::vector<std::pair<unsigned, unsigned>> filters; // taps and sections
    for (unsigned taps = 1; taps <= 70; ++taps)
        filters.emplace_back(taps, taps % 3 * 4);
    for (const unsigned taps : {95U, 128U, 251U, 480U, 1023U, 1024U, 4095U})
        filters.emplace_back(taps, 5);
    for (unsigned sections = 0; sections <= 37; ++sections)
    {
        for (const unsigned taps : {1U, 63U, 64U})
            filters.emplace_back(taps, sections);
    }
    for (const auto& [taps, sections] : filters)
    {
        for (const bool special : {false, true})
            ASSERT_NO_FATAL_FAILURE(expectPlainBits(variant(), taps, sections, special, random));
    }
}

TEST_P(FiirVariants, CanBeForcedByName)
{
    ASSERT_TRUE(forceKernelVariant(variant().name));
    EXPECT_EQ(fieldsOf(makeFiir(kInitAuto, {1})).process, variant().fiir);
    EXPECT_FALSE(forceKernelVariant("abacus"));
    EXPECT_STREQ(kernelVariant().name, variant().name);
    EXPECT_TRUE(forceKernelVariant(nullptr));
    EXPECT_STREQ(kernelVariant().name, kernelVariants().front().name);
}

INSTANTIATE_TEST_SUITE_P(All, FiirVariants, everyVariant(), variantName);

} // namespace
