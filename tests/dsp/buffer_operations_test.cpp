// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/buffer_operations.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <numbers>
#include <numeric>
#include <utility>

#include "tests/support/guarded_buffer.h"
#include "tests/support/random.h"
#include "tests/support/same_bits.h"

namespace {

using korvotest::blockOf;
using korvotest::CGuardedBuffer;
using korvotest::sameBits;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
const std::size_t kMisalignments[] = {0, 4, 8, 12};

std::mt19937& randomSource()
{
    static std::mt19937 random = korvotest::makeRandom(3401);
    return random;
}

std::vector<float> noiseOf(std::size_t count, float amplitude = 1.5F)
{
    return korvotest::makeNoise(randomSource(), count, amplitude);
}

/// Calls `check` with noise of many lengths that has one special value in it.
void forAllInputs(float amplitude, const std::function<void(const std::vector<float>&, unsigned)>& check)
{
    for (const unsigned count : {0U, 1U, 3U, 4U, 5U, 15U, 16U, 17U, 31U, 64U, 253U})
    {
        for (const float special : {-0.0F, kNaN, -INFINITY, 9.0F})
        {
            std::vector<float> input = noiseOf(count, amplitude);
            if (count > 0)
                input[randomSource()() % count] = special;
            SCOPED_TRACE(std::to_string(count) + " with " + std::to_string(special));
            check(input, count);
        }
    }
}

/// Runs an operation at every misalignment of input and of output, apart and in place, and compares each
/// output with the plain form of the operation to the bit.
void checkAgainstPlain(const std::function<void(const float*, float*, unsigned)>& operation,
                       const std::function<float(float x, bool inGroupOfFour)>& plain, float amplitude = 1.5F)
{
    forAllInputs(amplitude, [&](const std::vector<float>& input, unsigned count) {
        std::vector<float> expected;
        for (const float x : input)
            expected.push_back(plain(x, expected.size() < count / 4 * 4));
        for (const std::size_t shiftIn : kMisalignments)
        {
            for (const std::size_t shiftOut : kMisalignments)
            {
                CGuardedBuffer<float> in(input, shiftIn);
                CGuardedBuffer<float> out(count, shiftOut);
                operation(in.data(), out.data(), count);
                operation(in.data(), in.data(), count);
                ASSERT_TRUE(in.intact() && out.intact());
                ASSERT_TRUE(sameBits(out.values(), expected));
                ASSERT_TRUE(sameBits(in.values(), expected)) << "in place";
            }
        }
    });
}

TEST(BufferOperations, GainIsOneProductPerSample)
{
    for (const float gain : {0.7F, -1.3F, 0.0F})
        checkAgainstPlain(
            [&](const float* in, float* out, unsigned n) { korvodsp::ApplyGain(gain, in, out, n); },
            [&](float x, bool) { return gain * x; });
}

TEST(BufferOperations, SaturationIsTheDefinedArithmeticToTheBitAndTellsOfItself)
{
    // One sample at most is above; well above full scale the difference rounds; at a tiny threshold the
    // divisor's offset shows; at a huge one a constant is infinite.
    for (const auto& [threshold, amplitude] :
         {std::pair{0.5F, 0.5F}, {0.9F, 40.0F}, {1.0F, 1.5F}, {1e-20F, 4e-20F}, {1e30F, 3.0F}})
        checkAgainstPlain(
            [&](const float* in, float* out, unsigned n) {
                const bool clean =
                    std::none_of(in, in + n, [&](float x) { return std::fabs(x) > threshold; });
                EXPECT_EQ(korvodsp::Saturate(in, out, n, threshold), clean);
            },
            [&](float x, bool inGroupOfFour) {
                const float a = std::fabs(x);
                const float k = threshold * threshold - threshold;
                const float bent = inGroupOfFour ? a + (k / (a + 1e-20F) + 1.0F - a) : k / a + 1.0F;
                return std::copysign(a > threshold ? bent : a, x);
            },
            amplitude);
    std::vector<float> hot{1.0F, 0.5F, -1.0F, 0.0F, -0.5F, 0.25F, -1.0F};
    EXPECT_FALSE(korvodsp::Saturate(hot.data(), hot.data(), 7, 0.5F));
    EXPECT_EQ(hot, (std::vector{0.75F, 0.5F, -0.75F, 0.0F, -0.5F, 0.25F, -0.75F}));
}

TEST(BufferOperations, MaximaAreThoseOfAPlainSearch)
{
    forAllInputs(1.5F, [&](const std::vector<float>& input, unsigned count) {
        float largest = 0.0F, magnitude = 0.0F;
        for (const float x : input)
        {
            largest = std::max(largest, x); // a NaN is not larger
            magnitude = std::max(magnitude, std::fabs(x));
        }
        for (const std::size_t shift : kMisalignments)
        {
            CGuardedBuffer<float> data(input, shift);
            EXPECT_EQ(korvodsp::MaxValue(data.data(), count), largest);
            EXPECT_EQ(korvodsp::AbsMaxValue(data.data(), count), magnitude);
            EXPECT_TRUE(korvodsp::AbsMax(data.data(), count, magnitude));
            EXPECT_EQ(korvodsp::AbsMax(data.data(), count, std::nextafterf(magnitude, INFINITY)),
                      std::isinf(magnitude));
            EXPECT_FALSE(korvodsp::AbsMax(data.data(), count, kNaN));
        }
    });
    const std::vector<float> negative(37, -0.5F);
    EXPECT_EQ(korvodsp::MaxValue(negative.data(), 37), 0.0F);
}

TEST(BufferOperations, LayoutsTurnIntoEachOther)
{
    for (const unsigned numChannels : {1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 11U})
    {
        for (const unsigned frames : {0U, 1U, 3U, 4U, 5U, 17U, 64U})
        {
            std::vector<float> numbers(frames * numChannels);
            std::iota(numbers.begin(), numbers.end(), 0.0F);
            CGuardedBuffer<float> block(numbers, 4);
            std::vector<std::vector<float>> channels(numChannels, std::vector<float>(frames + 1, 7.0F));
            std::vector<float*> pointers;
            for (auto& channel : channels)
                pointers.push_back(channel.data());
            korvodsp::Deinterleave(block.data(), pointers.data(), frames, numChannels);
            for (std::size_t i = 0; i < numbers.size(); ++i)
                ASSERT_EQ(channels[i % numChannels][i / numChannels], numbers[i]);
            for (const auto& channel : channels)
                ASSERT_EQ(channel[frames], 7.0F) << "written past the end";
            block.assign(std::vector<float>(numbers.size(), -1.0F));
            korvodsp::Interleave(pointers.data(), block.data(), frames, numChannels);
            ASSERT_EQ(block.values(), numbers);
            ASSERT_TRUE(block.intact());
        }
    }
    // Without frames there need not be any channels.
    korvodsp::Interleave(nullptr, nullptr, 0, 2);
    korvodsp::Deinterleave(nullptr, nullptr, 0, 2);
}

TEST(BufferOperations, FadesFollowTheRecurrenceInTheirChannelOnly)
{
    for (const unsigned frames : {0U, 1U, 2U, 16U, 441U, 4096U})
    {
        const std::vector<float> from = noiseOf(frames), to = noiseOf(frames), ones(frames, 1.0F);
        CGuardedBuffer<float> out(blockOf(ones, 1, 3)), in(blockOf(ones, 1, 3)), mixed(blockOf(ones, 1, 3));
        korvodsp::FadeOutBuffer(out.data(), frames, 1, 3);
        korvodsp::FadeInBuffer(in.data(), frames, 1, 3);
        korvodsp::FadeBuffers(blockOf(from, 1, 3).data(), blockOf(to, 1, 3).data(), mixed.data(), frames, 1,
                              3);
        const float w = std::bit_cast<float>(0x40490FDBU) / static_cast<float>(frames);
        const auto c = static_cast<float>(2.0 * std::cos(static_cast<double>(w)));
        float s = 0.5F, before = c * 0.5F * 0.5F;
        std::vector<float> down, up, mix;
        for (unsigned i = 0; i < frames; ++i)
        {
            // A last bit of c bends the curve by 1e-8 of the angle for each frame squared.
            ASSERT_NEAR(double{s}, 0.5 * std::cos(std::numbers::pi * i / frames),
                        1e-6 + 1e-8 * frames * frames);
            down.push_back(s + 0.5F);
            up.push_back(0.5F - s);
            mix.push_back((0.5F - s) * to[i] + (s + 0.5F) * from[i]);
            before = std::exchange(s, s * c - before);
        }
        EXPECT_TRUE(sameBits(out.values(), blockOf(down, 1, 3)));
        EXPECT_TRUE(sameBits(in.values(), blockOf(up, 1, 3)));
        EXPECT_TRUE(sameBits(mixed.values(), blockOf(mix, 1, 3)));
        EXPECT_TRUE(out.intact() && in.intact() && mixed.intact());
    }
}

TEST(BufferOperations, RoutingMixesTheMaskedInputsOfTheWantedFrames)
{
    const std::vector<float> in = noiseOf(8 * 3);
    // Bits 3 and 31 name inputs that are not there.
    const unsigned routing[] = {0b101U, 0U, 0b111U, 0x80000008U};
    for (const auto& [first, end] : {std::pair{2U, 5U}, {7U, 6U}, {0U, 8U}})
    {
        std::vector<float> out(8 * 4, 5.0F);
        korvodsp::RouteAndMix(in.data(), out.data(), first, end, 3, 4, routing);
        for (unsigned at = 0; at < out.size(); ++at)
        {
            const unsigned frame = at / 4;
            float expected = frame < end ? 0.0F : 5.0F;
            for (unsigned i = 0; i < 3 && frame >= first && frame < end; ++i)
                expected += (routing[at % 4] >> i & 1U) != 0 ? in[frame * 3 + i] : 0.0F;
            EXPECT_EQ(out[at], expected) << at << " of " << first << " to " << end;
        }
    }
    // More inputs than bits: the mask ends, and nothing wraps round to input 0.
    const std::vector<float> wide(40, 1.0F);
    const unsigned all[] = {0xFFFFFFFFU};
    float sum = 0.0F;
    korvodsp::RouteAndMix(wide.data(), &sum, 0, 1, 40, 1, all);
    EXPECT_EQ(sum, 32.0F);
}

TEST(BufferOperations, GainRampAccumulatesOneStepPerFrame)
{
    const std::vector<float> in = noiseOf(253 * 2);
    std::vector<float> out(in.size()), expected;
    korvodsp::ApplyGainRamp(0.2F, 0.9F, in.data(), out.data(), 253, 2);
    float gain = 0.2F;
    for (std::size_t i = 0; i < in.size(); ++i)
    {
        expected.push_back(in[i] * gain);
        gain += i % 2 == 1 ? (0.9F - 0.2F) / 253.0F : 0.0F;
    }
    EXPECT_TRUE(sameBits(out, expected));
}

} // namespace
