// SPDX-License-Identifier: GPL-3.0-or-later
#include <xmmintrin.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "dsp/channel_delay.h"
#include "dsp/fiir_filter.h"
#include "tests/support/fiir_builder.h"
#include "tests/support/plain_fiir.h"
#include "tests/support/random.h"
#include "tests/support/same_bits.h"
#include "tests/support/variant_test.h"

// What filters leave of silence is denormals, for which there are ways of their own. The bits stay those of
// plain arithmetic, in each mode of the processor.
namespace {

using namespace korvodsp;

struct SMode
{
    const char* name;
    unsigned bits;
};
constexpr SMode kModes[] = {
    {"as the processor starts", 0},
    {"results to zero", _MM_FLUSH_ZERO_ON},
    {"operands to zero", 0x0040},
    {"both to zero", _MM_FLUSH_ZERO_ON | 0x0040},
    {"rounding down", _MM_ROUND_DOWN},
    {"rounding up", _MM_ROUND_UP},
    {"rounding to zero", _MM_ROUND_TOWARD_ZERO},
};

class CModeGuard
{
public:
    explicit CModeGuard(const SMode& mode) { _mm_setcsr(m_before | mode.bits); }
    ~CModeGuard() { _mm_setcsr(m_before); }
    CModeGuard(const CModeGuard&) = delete;
    CModeGuard& operator=(const CModeGuard&) = delete;

private:
    unsigned m_before = _mm_getcsr();
};

/// `frames` samples of one kind after the other.
enum class EInput
{
    Noise,
    Denormals,
    PositiveZeros,
    NegativeZeros,
    MixedZeros
};
struct SPassage
{
    EInput input;
    unsigned frames;
};

std::vector<float> makeInput(std::mt19937& random, const std::vector<SPassage>& passages)
{
    std::vector<float> signal;
    for (const auto& [input, frames] : passages)
    {
        for (float x : korvotest::makeNoise(random, frames))
        {
            const float scale = input == EInput::Noise ? 1.0F : input == EInput::Denormals ? 1e-40F : 0.0F;
            x = input == EInput::PositiveZeros ? 0.0F : input == EInput::NegativeZeros ? -0.0F : x * scale;
            signal.push_back(x);
        }
    }
    return signal;
}

/// a1, a2, b0, b1 of sections that ring down at very different speeds, each lane of a group at its own.
std::vector<float> makeDecays(std::mt19937& random, unsigned count)
{
    constexpr double kRadii[] = {0.3, 0.99, 0.9, 0.97, 0.6, 0.98, 0.0};
    std::uniform_real_distribution<double> uniform(-1.0, 1.0);
    std::vector<float> coefs;
    for (unsigned s = 0; s < count; ++s)
    {
        const double r = kRadii[s % 7];
        const double other = 0.9 * r * uniform(random);
        const bool real = s % 3 == 1; // poles at r or -r and at `other`
        const double pole = s % 2 == 0 ? r : -r;
        const double a1 = real ? -(pole + other) : -2.0 * r * std::cos(3.14159 * uniform(random));
        for (const double c : {a1, real ? pole * other : r * r, uniform(random), uniform(random)})
            coefs.push_back(static_cast<float>(c));
    }
    return coefs;
}

/// The signs of zeros inside a filter never reach its output.
std::vector<float> withoutZeroSigns(std::vector<float> state)
{
    std::replace(state.begin(), state.end(), -0.0F, 0.0F);
    return state;
}

void expectPlainBits(const SKernelVariant& variant, const std::vector<float>& taps,
                     const std::vector<float>& sections, const std::vector<float>& signal,
                     std::mt19937& random, unsigned maxBlock)
{
    const korvotest::FiirHandle subject = korvotest::makeFiir(kInitSSE, taps, sections);
    const korvotest::FiirHandle plain = korvotest::makeFiir(kInitSSE, taps, sections);
    std::vector<float> actual(signal.size());
    std::vector<float> expected(signal.size());
    for (std::size_t from = 0; from < signal.size();)
    {
        const auto frames =
            static_cast<unsigned>(std::min<std::size_t>(1 + random() % maxBlock, signal.size() - from));
        variant.fiir(subject.get(), signal.data() + from, actual.data() + from, frames, 0, 1);
        korvotest::plainFiir(plain.get(), signal.data() + from, expected.data() + from, frames, 0, 1);
        from += frames;
    }
    ASSERT_TRUE(korvotest::sameBits(actual, expected));
    EXPECT_TRUE(korvotest::sameBits(withoutZeroSigns(korvotest::stateOf(subject)),
                                    withoutZeroSigns(korvotest::stateOf(plain))));
}

/// With a ring for which sections run alone, and one for which they run along with the sums.
void expectPlainBits(const SKernelVariant& variant, const std::vector<float>& sections,
                     const std::vector<float>& signal, std::mt19937& random, unsigned maxBlock = 200)
{
    for (const unsigned taps : {3U, 150U})
    {
        SCOPED_TRACE(taps);
        ASSERT_NO_FATAL_FAILURE(
            expectPlainBits(variant, korvotest::makeNoise(random, taps), sections, signal, random, maxBlock));
    }
}

using Silence = korvotest::CVariantTest;

TEST_P(Silence, IsPlainArithmeticAllTheWayDown)
{
    auto random = korvotest::makeRandom(51);
    for (const unsigned sections : {1U, 4U, 13U, 32U, 67U})
    {
        SCOPED_TRACE(sections);
        const std::vector<float> signal = makeInput(random, {{EInput::Noise, 300},
                                                             {EInput::PositiveZeros, 12000},
                                                             {EInput::Noise, 50},
                                                             {EInput::MixedZeros, 3000},
                                                             {EInput::Denormals, 50},
                                                             {EInput::NegativeZeros, 1500}});
        ASSERT_NO_FATAL_FAILURE(expectPlainBits(variant(), makeDecays(random, sections), signal, random));
    }
}

TEST_P(Silence, IsPlainArithmeticInEveryModeOfTheProcessor)
{
    auto random = korvotest::makeRandom(52);
    const std::vector<float> signal =
        makeInput(random, {{EInput::Noise, 100}, {EInput::PositiveZeros, 4000}, {EInput::MixedZeros, 500}});
    const std::vector<float> sections = makeDecays(random, 17);
    for (const SMode& mode : kModes)
    {
        SCOPED_TRACE(mode.name);
        const CModeGuard guard(mode);
        ASSERT_NO_FATAL_FAILURE(expectPlainBits(variant(), sections, signal, random));
        EXPECT_EQ(_mm_getcsr() & (_MM_ROUND_MASK | _MM_FLUSH_ZERO_MASK | 0x0040), mode.bits);
    }
}

TEST_P(Silence, IsPlainArithmeticForSectionsThatGrowOutOfIt)
{
    auto random = korvotest::makeRandom(53);
    // a1, a2, b0, b1
    const std::vector<float> growing = {
        -1.2F, 1.02F, 1, 1,    // slowly
        0.3F,  -1.4F, 1, -1,   // at once
        -2.1F, 1.1F,  1, 0.5F, // |a1| above 2
        1.5F,  3.0F,  1, 0,    // |a2| above 2
        -0.9F, 0.2F,  1, 1,    // and one that does not
    };
    for (unsigned frames = 1; frames < 400; frames += 7)
    {
        const std::vector<float> signal =
            makeInput(random, {{EInput::Denormals, 5}, {EInput::MixedZeros, frames}});
        // One sample a block as well, of which the first of silence has an input before it that is none.
        for (const unsigned maxBlock : {1U, 200U})
            ASSERT_NO_FATAL_FAILURE(expectPlainBits(variant(), growing, signal, random, maxBlock));
    }
}

TEST_P(Silence, IsPlainArithmeticForProductsBeyondDenormals)
{
    // From the second output on, the input is cancelled and the state is as wanted: small itself, and small
    // again after one more step, but as the difference of two products of which one has lost its last bit.
    constexpr float kUnit = 0x1p-149F;
    auto random = korvotest::makeRandom(56);
    for (unsigned i = 0; i < 20; ++i)
    {
        const float offset = static_cast<float>(i);
        for (const auto& [a1, a2, first, second] :
             {std::array{2.2F, 1.95F, 4.1e6F, 7.97e6F}, std::array{1.95F, 2.2F, 3.59e6F, 8e6F}})
        {
            std::vector<float> signal(40);
            signal[0] = (first + offset) * kUnit;
            signal[1] = (second + offset) * kUnit;
            ASSERT_NO_FATAL_FAILURE(expectPlainBits(variant(), {a1, a2, 1, a1}, signal, random, 1));
        }
    }
}

TEST_P(Silence, KeepsTheSignsOfZerosAndWhatIsNoNumber)
{
    auto random = korvotest::makeRandom(54);
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    const float values[] = {0.0F, -0.0F, 0.4F, -0.4F, 1e-40F, -2.0F, 2.0F};
    for (unsigned round = 0; round < 200; ++round)
    {
        // In one lane alone, so that it does not hide the zeros' signs from the rest.
        std::vector<float> coefs(16);
        for (float& c : coefs)
            c = values[random() % 7];
        if (round % 4 == 0)
            coefs[random() % 16] = round % 8 == 0 ? kInfinity : std::nanf("");
        const std::vector<float> signal = makeInput(
            random, {{EInput::Denormals, 4}, {EInput::MixedZeros, 30}, {EInput::NegativeZeros, 30}});
        ASSERT_NO_FATAL_FAILURE(expectPlainBits(variant(), coefs, signal, random));
    }
}

INSTANTIATE_TEST_SUITE_P(All, Silence, korvotest::everyVariant(), korvotest::variantName);

TEST(SilenceGain, IsThePlainProduct)
{
    auto random = korvotest::makeRandom(55);
    std::vector<float> gains = {1.0F,   -1.0F,        0.5F,   1.5F,  2.0F,
                                -3.7F,  1e9F,         1e-30F, 1e38F, std::numeric_limits<float>::infinity(),
                                1e-40F, std::nanf("")};
    std::vector<float> samples(500);
    for (float& x : samples)
    {
        const auto bits = static_cast<std::uint32_t>(random());
        x = std::bit_cast<float>((bits & 0x80000000) | ((bits & 0x00FFFFFF) >> random() % 24));
    }
    samples.push_back(0.3F);
    for (const SMode& mode : kModes)
    {
        for (const float gain : gains)
        {
            SCOPED_TRACE(std::string(mode.name) + ", gain " + std::to_string(gain));
            // The first sample decides on the way that the block goes.
            for (const float first : {0.0F, -0.0F, 1e-40F, 1.0F})
            {
                samples[0] = first;
                const CModeGuard guard(mode);
                std::vector<float> actual(samples.size());
                rampColumn(samples.data(), 1, actual.data(), 1, static_cast<std::uint32_t>(samples.size()),
                           {gain, 0.0F});
                for (std::size_t i = 0; i < samples.size(); ++i)
                {
                    const volatile float factor = gain;
                    const float expected = factor * samples[i];
                    ASSERT_TRUE(korvotest::sameBits(actual[i], expected)) << samples[i] << ": " << actual[i];
                }
            }
        }
    }
}

} // namespace
