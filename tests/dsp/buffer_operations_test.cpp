// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/buffer_operations.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <numeric>

#include "tests/support/guarded_buffer.h"
#include "tests/support/random.h"

namespace {

using korvotest::CGuardedBuffer;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

const std::size_t kCounts[] = {0, 1, 3, 4, 5, 15, 16, 17, 31, 64, 253};
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

/// Runs an operation over every count, misalignment of input and of output, apart and in place, and compares
/// each output with the plain form of the operation to the bit.
void checkAgainstPlain(const std::function<void(const float*, float*, unsigned)>& operation,
                       const std::function<float(const std::vector<float>&, std::size_t)>& plain,
                       float amplitude = 1.5F)
{
    for (const std::size_t count : kCounts)
    {
        for (const std::size_t shiftIn : kMisalignments)
        {
            for (const std::size_t shiftOut : kMisalignments)
            {
                std::vector<float> input = noiseOf(count, amplitude);
                if (count > 2)
                    input[count / 2] = -0.0F;
                CGuardedBuffer<float> in(count, shiftIn);
                CGuardedBuffer<float> out(count, shiftOut);
                in.assign(input);
                operation(in.data(), out.data(), static_cast<unsigned>(count));
                operation(in.data(), in.data(), static_cast<unsigned>(count));
                ASSERT_TRUE(in.intact() && out.intact()) << count;
                for (std::size_t i = 0; i < count; ++i)
                {
                    const auto bits = std::bit_cast<std::uint32_t>(plain(input, i));
                    ASSERT_EQ(std::bit_cast<std::uint32_t>(out.get(i)), bits) << input[i] << " at " << i;
                    ASSERT_EQ(std::bit_cast<std::uint32_t>(in.get(i)), bits) << "in place, at " << i;
                }
            }
        }
    }
}

TEST(BufferOperations, GainIsOneProductPerSample)
{
    for (const float gain : {0.7F, -1.3F, 0.0F})
        checkAgainstPlain(
            [&](const float* in, float* out, unsigned n) { korvodsp::ApplyGain(gain, in, out, n); },
            [&](const std::vector<float>& in, std::size_t i) { return gain * in[i]; });
}

/// Saturation as it is defined: the samples that fill whole groups of four go through the masked difference.
float saturatePlain(float x, float threshold, bool inGroup)
{
    const float a = std::fabs(x);
    const float k = threshold * threshold - threshold;
    volatile float result = a;
    if (inGroup)
    {
        const float divisor = a + 1e-20F;
        volatile float difference = k / divisor + 1.0F;
        difference = difference - a;
        volatile float masked = difference * (a > threshold ? 1.0F : 0.0F);
        result = a + masked;
    }
    else if (a > threshold)
        result = k / a + 1.0F;
    return std::signbit(x) ? -result : result;
}

TEST(BufferOperations, SaturationIsTheDefinedArithmeticToTheBit)
{
    // Well above full scale the masked difference rounds; at a tiny threshold the divisor's offset shows.
    for (const auto& [threshold, amplitude] :
         {std::pair{0.5F, 1.5F}, {0.9F, 40.0F}, {1.0F, 1.5F}, {1e-20F, 4e-20F}})
        checkAgainstPlain(
            [&](const float* in, float* out, unsigned n) { korvodsp::Saturate(in, out, n, threshold); },
            [&](const std::vector<float>& in, std::size_t i) {
                return saturatePlain(in[i], threshold, i < in.size() / 4 * 4);
            },
            amplitude);
}

TEST(BufferOperations, SaturationBendsWhatIsAboveTheThresholdAndTellsOfIt)
{
    std::vector<float> hot{1.0F, 0.5F, -1.0F, 0.0F, -0.5F, 0.25F, -1.0F};
    EXPECT_FALSE(korvodsp::Saturate(hot.data(), hot.data(), 7, 0.5F));
    EXPECT_EQ(hot, (std::vector{0.75F, 0.5F, -0.75F, 0.0F, -0.5F, 0.25F, -0.75F}));
    // Where the one sample above sits must not matter; NaN, zero and the threshold itself are not above.
    for (std::size_t position = 0; position < 11; ++position)
    {
        std::vector<float> data{0.5F, -0.5F, 0.0F, kNaN, 0.0F, 0.0F, 0.1F, 0.5F, -0.0F, kNaN, 0.5F};
        EXPECT_TRUE(korvodsp::Saturate(data.data(), data.data(), 11, 0.5F));
        EXPECT_TRUE(std::isnan(data[3]) && std::isnan(data[9]));
        data[position] = -0.6F;
        EXPECT_FALSE(korvodsp::Saturate(data.data(), data.data(), 11, 0.5F)) << position;
    }
    // A threshold out of range spoils nothing that lies below it.
    std::vector<float> data{0.0F, 1.0F, -2.0F, 3.0F};
    EXPECT_TRUE(korvodsp::Saturate(data.data(), data.data(), 4, 1e30F));
    EXPECT_EQ(data, (std::vector{0.0F, 1.0F, -2.0F, 3.0F}));
}

TEST(BufferOperations, MaximaAreThoseOfAPlainSearch)
{
    for (const std::size_t count : kCounts)
    {
        for (const std::size_t shift : kMisalignments)
        {
            for (const float special : {kNaN, -kInfinity, 9.0F})
            {
                std::vector<float> input = noiseOf(count);
                if (count > 0)
                    input[randomSource()() % count] = special;
                CGuardedBuffer<float> data(count, shift);
                data.assign(input);
                float largest = 0.0F;
                float largestMagnitude = 0.0F;
                for (const float x : input)
                {
                    largest = x > largest ? x : largest;
                    largestMagnitude = std::fabs(x) > largestMagnitude ? std::fabs(x) : largestMagnitude;
                }
                ASSERT_EQ(korvodsp::MaxValue(data.data(), static_cast<unsigned>(count)), largest);
                ASSERT_EQ(korvodsp::AbsMaxValue(data.data(), static_cast<unsigned>(count)), largestMagnitude);
            }
        }
    }
    const std::vector<float> negative(37, -0.5F);
    EXPECT_EQ(korvodsp::MaxValue(negative.data(), 37), 0.0F);
    EXPECT_TRUE(korvodsp::AbsMax(negative.data(), 37, 0.5F));
    EXPECT_FALSE(korvodsp::AbsMax(negative.data(), 37, 0.50001F));
    EXPECT_FALSE(korvodsp::AbsMax(negative.data(), 37, kNaN));
}

TEST(BufferOperations, LayoutsTurnIntoEachOther)
{
    for (const std::size_t numChannels : {1U, 2U, 3U, 4U, 5U, 6U, 7U, 8U, 11U})
    {
        for (const std::size_t frames : {0U, 1U, 3U, 4U, 5U, 17U, 64U})
        {
            CGuardedBuffer<float> block(frames * numChannels, 4);
            std::vector<float> numbers(block.size());
            std::iota(numbers.begin(), numbers.end(), 0.0F);
            block.assign(numbers);
            std::vector<std::vector<float>> channels(numChannels, std::vector<float>(frames + 1, 7.0F));
            std::vector<float*> pointers;
            for (auto& channel : channels)
                pointers.push_back(channel.data());
            const auto n = static_cast<unsigned>(frames);
            korvodsp::Deinterleave(block.data(), pointers.data(), n, static_cast<unsigned>(numChannels));
            for (std::size_t i = 0; i < block.size(); ++i)
                ASSERT_EQ(channels[i % numChannels][i / numChannels], numbers[i]);
            for (const auto& channel : channels)
                ASSERT_EQ(channel[frames], 7.0F) << "written past the end";
            block.assign(std::vector<float>(block.size(), -1.0F));
            korvodsp::Interleave(pointers.data(), block.data(), n, static_cast<unsigned>(numChannels));
            for (std::size_t i = 0; i < block.size(); ++i)
                ASSERT_EQ(block.get(i), numbers[i]);
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
        const unsigned stride = 3;
        CGuardedBuffer<float> out(frames * stride), in(frames * stride), mixed(frames * stride);
        const std::vector<float> from = noiseOf(frames * stride), to = noiseOf(frames * stride);
        for (CGuardedBuffer<float>* buffer : {&out, &in, &mixed})
            buffer->assign(std::vector<float>(frames * stride, 1.0F));
        korvodsp::FadeOutBuffer(out.data(), frames, 1, stride);
        korvodsp::FadeInBuffer(in.data(), frames, 1, stride);
        korvodsp::FadeBuffers(from.data(), to.data(), mixed.data(), frames, 1, stride);
        const float w = std::bit_cast<float>(0x40490FDBU) / static_cast<float>(frames);
        const auto c = static_cast<float>(2.0 * std::cos(static_cast<double>(w)));
        volatile float s = 0.5F, before = c * 0.5F * 0.5F;
        for (unsigned i = 0; i < frames * stride; ++i)
        {
            if (i % stride != 1)
            {
                ASSERT_TRUE(out.get(i) == 1.0F && in.get(i) == 1.0F && mixed.get(i) == 1.0F) << i;
                continue;
            }
            ASSERT_EQ(out.get(i), s + 0.5F) << i / stride << " of " << frames;
            ASSERT_EQ(in.get(i), 0.5F - s);
            ASSERT_EQ(mixed.get(i), (0.5F - s) * to[i] + (s + 0.5F) * from[i]);
            volatile float next = s * c;
            next = next - before;
            before = s;
            s = next;
        }
        ASSERT_TRUE(out.intact() && in.intact() && mixed.intact());
    }
}

TEST(BufferOperations, RoutingMixesTheMaskedInputsOfTheWantedFrames)
{
    const unsigned inChannels = 3, outChannels = 4;
    const std::vector<float> in = noiseOf(8 * inChannels);
    // Bits 3 and 31 name inputs that are not there.
    const unsigned routing[] = {0b101U, 0U, 0b111U, 0x80000008U};
    for (const auto& [first, end] : {std::pair{2U, 5U}, {7U, 6U}, {0U, 8U}})
    {
        std::vector<float> out(8 * outChannels, 5.0F);
        korvodsp::RouteAndMix(in.data(), out.data(), first, end, inChannels, outChannels, routing);
        for (unsigned at = 0; at < out.size(); ++at)
        {
            const unsigned frame = at / outChannels;
            float expected = frame < end ? 0.0F : 5.0F;
            for (unsigned i = 0; i < inChannels && frame >= first && frame < end; ++i)
                expected += (routing[at % outChannels] >> i & 1U) != 0 ? in[frame * inChannels + i] : 0.0F;
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
    const unsigned frames = 253, channels = 2;
    const std::vector<float> in = noiseOf(frames * channels);
    std::vector<float> out(frames * channels);
    korvodsp::ApplyGainRamp(0.2F, 0.9F, in.data(), out.data(), frames, channels);
    volatile float gain = 0.2F;
    const float step = (0.9F - 0.2F) / 253.0F;
    for (unsigned f = 0; f < frames; ++f)
    {
        for (unsigned c = 0; c < channels; ++c)
            ASSERT_EQ(out[f * channels + c], in[f * channels + c] * gain) << f;
        gain = gain + step;
    }
}

} // namespace
