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

#include "tests/support/random.h"

namespace {

struct SRelease
{
    void operator()(void* section) const { korvodsp::BQ_Discard(section); }
};
using Section = std::unique_ptr<void, SRelease>;

Section makeSection(float b0 = 1.0F, float b1 = 0.0F, float b2 = 0.0F, float a1 = 0.0F, float a2 = 0.0F)
{
    void* section = nullptr;
    EXPECT_TRUE(korvodsp::BQ_Init(&section, b0, b1, b2, a1, a2));
    return Section(section);
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
    const std::size_t pieces[] = {1, 0, 100, 152};

    std::vector<float> expected = noise;
    volatile float z1 = 0.0F, z2 = 0.0F, bias = 1e-20F;
    std::size_t at = 0;
    for (const std::size_t piece : pieces)
    {
        for (std::size_t i = 0; i < piece; ++i, ++at)
        {
            volatile float w = noise[at] - z1 * a1;
            w = w - z2 * a2;
            w = w + bias;
            volatile float feed = z1 * b1;
            feed = feed + z2 * b2;
            expected[at] = feed + w * b0;
            z2 = z1;
            z1 = w;
        }
        bias = -bias;
    }

    const Section forward = makeSection(b0, b1, b2, a1, a2);
    const Section backward = makeSection(b0, b1, b2, a1, a2);
    std::vector<float> data = noise;
    std::vector<float> mirrored(noise.rbegin(), noise.rend());
    at = 0;
    for (const std::size_t piece : pieces)
    {
        korvodsp::BQ_Process(forward.get(), data.data() + at, static_cast<unsigned>(piece));
        at += piece;
        korvodsp::BQ_ProcessBackwards(backward.get(), mirrored.data() + mirrored.size() - at,
                                      static_cast<unsigned>(piece));
    }
    EXPECT_EQ(data, expected);
    std::reverse(mirrored.begin(), mirrored.end());
    EXPECT_EQ(mirrored, expected);
}

TEST(Biquad, DesignsHaveTheResponseOfTheirFormulas)
{
    struct SCase
    {
        double rate, cutoff, q;
    };
    for (const SCase& c : {SCase{48000, 400, 0.7}, SCase{44100, 8000, 2.0}, SCase{96000, 20, 0.7071}})
    {
        for (const bool loPass : {true, false})
        {
            const Section section = makeSection();
            (loPass ? korvodsp::BQ_MakeLoPass
                    : korvodsp::BQ_MakeHiPass)(section.get(), static_cast<float>(c.rate),
                                               static_cast<float>(c.cutoff), static_cast<float>(c.q));
            const std::array<float, 8> made = recordOf(section.get());
            const std::array<double, 5> k{made[0], made[1], made[2], made[3], made[4]};
            // Bilinear transform of 1 / (s^2 + s / q + 1), or s^2 over the same, warped to meet the cutoff.
            for (const double ratio : {0.0, 0.25, 1.0, 2.0})
            {
                const double omega = 2.0 * std::numbers::pi * c.cutoff / c.rate;
                const std::complex<double> s(0.0, std::tan(omega * ratio / 2.0) / std::tan(omega / 2.0));
                const std::complex<double> expected = (loPass ? 1.0 : s * s) / (s * s + s / c.q + 1.0);
                const std::complex<double> z = std::polar(1.0, -omega * ratio);
                const std::complex<double> response =
                    (k[2] + k[3] * z + k[4] * z * z) / (1.0 + k[0] * z + k[1] * z * z);
                // Far below the rate the sums cancel down to omega^2.
                const double bound = 4.0 * std::numeric_limits<float>::epsilon() / (omega * omega);
                EXPECT_LT(std::abs(response - expected), bound)
                    << (loPass ? "low-pass " : "high-pass ") << c.cutoff << " Hz at " << ratio;
            }
        }
    }
}

TEST(Biquad, ForwardAndBackwardLeaveAPeakWhereItWas)
{
    std::vector<float> data(4001, 0.0F);
    data[2000] = 1.0F;
    const Section owner = makeSection();
    void* section = owner.get();
    korvodsp::BQ_MakeLoPass(section, 48000.0F, 2000.0F, 0.7F);
    korvodsp::BQ_Process(section, data.data(), 4001);
    EXPECT_GT(std::max_element(data.begin(), data.end()) - data.begin(), 2000) << "one pass delays";
    korvodsp::BQ_Reset(section);
    korvodsp::BQ_ProcessBackwards(section, data.data(), 4001);
    EXPECT_EQ(std::max_element(data.begin(), data.end()) - data.begin(), 2000);
}

} // namespace
