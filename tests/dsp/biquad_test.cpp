// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/biquad.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstring>
#include <limits>
#include <memory>
#include <numbers>
#include <utility>

#include "tests/support/random.h"

namespace {

using Section = std::unique_ptr<void, decltype(&korvodsp::BQ_Discard)>;

Section makeSection(float b0 = 1.0F, float b1 = 0.0F, float b2 = 0.0F, float a1 = 0.0F, float a2 = 0.0F)
{
    void* section = nullptr;
    EXPECT_TRUE(korvodsp::BQ_Init(&section, b0, b1, b2, a1, a2));
    return Section(section, korvodsp::BQ_Discard);
}

/// The record in its documented order: a1, a2, b0, b1, b2, z1, z2, denormalBias.
std::array<float, 8> recordOf(const void* section)
{
    std::array<float, 8> fields;
    std::memcpy(fields.data(), section, sizeof(fields));
    return fields;
}

TEST(Biquad, StoresItsRecordInTheDocumentedOrder)
{
    void* wire = nullptr;
    ASSERT_TRUE(korvodsp::BQ_Init(&wire));
    EXPECT_EQ(recordOf(wire), (std::array{0.0F, 0.0F, 1.0F, 0.0F, 0.0F, 0.0F, 0.0F, 1e-20F}));
    korvodsp::BQ_Discard(wire);
    const Section owner = makeSection(1.0F, 2.0F, 3.0F, 4.0F, 5.0F);
    void* section = owner.get();
    EXPECT_EQ(recordOf(section), (std::array{4.0F, 5.0F, 1.0F, 2.0F, 3.0F, 0.0F, 0.0F, 1e-20F}));

    float samples[] = {1.0F, 1.0F};
    korvodsp::BQ_Process(section, samples, 2);
    const std::array<float, 8> run = recordOf(section);
    korvodsp::BQ_SetCoeffsRaw(section, 2.0F, 4.0F, 6.0F, -4.0F, 8.0F, 10.0F);
    EXPECT_EQ(recordOf(section), (std::array{-2.0F, -2.5F, -0.5F, -1.0F, -1.5F, run[5], run[6], -1e-20F}))
        << "coefficients over a0, state and bias kept";
    korvodsp::BQ_Reset(section);
    EXPECT_EQ(recordOf(section), (std::array{-2.0F, -2.5F, -0.5F, -1.0F, -1.5F, 0.0F, 0.0F, -1e-20F}));
}

TEST(Biquad, RunsInTheFixedOrderOfOperationsInPiecesAndBackwards)
{
    std::mt19937 random = korvotest::makeRandom(3301);
    const std::vector<float> noise = korvotest::makeNoise(random, 253);
    const float b0 = 0.3F, b1 = -0.7F, b2 = 0.11F, a1 = -1.7F, a2 = 0.83F;
    const Section forward = makeSection(b0, b1, b2, a1, a2);
    const Section backward = makeSection(b0, b1, b2, a1, a2);
    std::vector<float> data = noise, expected = noise;
    std::vector<float> mirrored(noise.rbegin(), noise.rend());
    float z1 = 0.0F, z2 = 0.0F, bias = 1e-20F;
    unsigned at = 0;
    for (const unsigned piece : {1U, 0U, 100U, 152U})
    {
        korvodsp::BQ_Process(forward.get(), data.data() + at, piece);
        for (const unsigned end = at + piece; at < end; ++at)
        {
            const float w = noise[at] - z1 * a1 - z2 * a2 + bias;
            expected[at] = z1 * b1 + z2 * b2 + w * b0;
            z2 = std::exchange(z1, w);
        }
        bias = -bias;
        korvodsp::BQ_ProcessBackwards(backward.get(), mirrored.data() + mirrored.size() - at, piece);
    }
    EXPECT_EQ(data, expected);
    std::reverse(mirrored.begin(), mirrored.end());
    EXPECT_EQ(mirrored, expected);
}

TEST(Biquad, DesignsHaveTheResponseOfTheirFormulas)
{
    const std::array<double, 3> cases[] = {{48000, 400, 0.7}, {44100, 8000, 2.0}, {96000, 20, 0.7071}};
    for (const auto& [rate, cutoff, q] : cases)
    {
        for (const bool loPass : {true, false})
        {
            const Section section = makeSection();
            (loPass ? korvodsp::BQ_MakeLoPass : korvodsp::BQ_MakeHiPass)(
                section.get(), static_cast<float>(rate), static_cast<float>(cutoff), static_cast<float>(q));
            const std::array<float, 8> made = recordOf(section.get());
            const std::vector<double> k(made.begin(), made.end());
            // Bilinear transform of 1 / (s^2 + s / q + 1), or s^2 over the same, warped to meet the cutoff.
            for (const double ratio : {0.0, 0.25, 1.0, 2.0})
            {
                const double omega = 2.0 * std::numbers::pi * cutoff / rate;
                const std::complex<double> s(0.0, std::tan(omega * ratio / 2.0) / std::tan(omega / 2.0));
                const std::complex<double> expected = (loPass ? 1.0 : s * s) / (s * s + s / q + 1.0);
                const std::complex<double> z = std::polar(1.0, -omega * ratio);
                const std::complex<double> response =
                    (k[2] + k[3] * z + k[4] * z * z) / (1.0 + k[0] * z + k[1] * z * z);
                // Far below the rate the sums cancel down to omega^2.
                const double bound = 4.0 * std::numeric_limits<float>::epsilon() / (omega * omega);
                EXPECT_LT(std::abs(response - expected), bound)
                    << (loPass ? "low-pass " : "high-pass ") << cutoff << " Hz at " << ratio;
            }
        }
    }
}

TEST(Biquad, ForwardAndBackwardLeaveAPeakWhereItWas)
{
    std::vector<float> data(4001, 0.0F);
    data[2000] = 1.0F;
    const auto peak = [&] { return std::max_element(data.begin(), data.end()) - data.begin(); };
    const Section section = makeSection();
    korvodsp::BQ_MakeLoPass(section.get(), 48000.0F, 2000.0F, 0.7F);
    korvodsp::BQ_Process(section.get(), data.data(), 4001);
    EXPECT_GT(peak(), 2000) << "one pass delays";
    korvodsp::BQ_Reset(section.get());
    korvodsp::BQ_ProcessBackwards(section.get(), data.data(), 4001);
    EXPECT_EQ(peak(), 2000);
}

} // namespace
