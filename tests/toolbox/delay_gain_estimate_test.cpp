// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/delay_gain_estimate.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>
#include <thread>
#include <tuple>
#include <vector>

#include "tests/support/random.h"
#include "tests/toolbox/fault_injection.h"
#include "toolbox/delay_gain_estimator.h"
#include "toolbox/helpers.h"

using namespace korvotoolbox;
using korvotest::readAccounting;

namespace {

/// The mean is taken in single precision, one magnitude after the other: half a unit in the last place for
/// each of 1639 at a centre of 0.5, where the narrow band is widest.
constexpr double kMeanError = 1e-4;

std::vector<float> impulse(int length, int position, float value)
{
    std::vector<float> taps(static_cast<std::size_t>(length));
    taps[static_cast<std::size_t>(position)] = value;
    return taps;
}

SEstimate estimate(const std::vector<float>& taps, float centre = 0.5F,
                   EDelaySearch way = EDelaySearch::BySpectrumIfClear)
{
    thread_local CDelayGainEstimator s_estimator;
    return s_estimator.estimate(taps.data(), static_cast<int>(taps.size()), centre, way);
}

/// The spectrum of an impulse at `position`.
std::complex<double> phasor(std::size_t position, std::size_t bin)
{
    return std::polar(1.0, -2.0 * std::numbers::pi * static_cast<double>(position * bin % 65536) / 65536.0);
}

/// `count` impulse responses as correction filters have them, of six kinds in turn, every second six
/// inverted and every second dozen with noise over them.
std::vector<std::vector<float>> makeCorpus(unsigned seed, int count)
{
    auto random = korvotest::makeRandom(seed);
    const auto uniform = [&random](double low, double high) {
        return std::uniform_real_distribution<double>(low, high)(random);
    };
    const auto sinc = [](double edge, double t) {
        return t == 0.0 ? edge : std::sin(std::numbers::pi * edge * t) / (std::numbers::pi * t);
    };

    std::vector<std::vector<float>> corpus(static_cast<std::size_t>(count));
    for (int n = 0; n < count; ++n)
    {
        const double length = std::floor(uniform(100, 2000));
        const double a = uniform(0.3, 0.95), b = uniform(-0.8, 0.8), c = uniform(5, 60);
        const double sign = n / 6 % 2 == 1 ? -1.0 : 1.0;
        const double noise = n / 12 % 2 == 1 ? 0.02 : 0.0;
        for (double t = 0.0; t < length; ++t)
        {
            const double middle = t - 0.5 * (length - 1.0);
            const double window = 0.5 + 0.5 * std::cos(2 * std::numbers::pi * middle / (length + 1));
            const double kinds[] = {
                // measured: direct sound, then noise that dies away
                t < std::floor(c) ? 0.0 : uniform(-0.5, 0.5) * std::exp((c - t) / 50) + (t < c + 1 ? 1 : 0),
                // minimum phase: a resonance beside the direct sound
                (t == 0.0 ? 1.0 : 0.0) + std::abs(b) * std::pow(a, t) * std::cos(c * t),
                // linear phase: a band with a step in it, about a sample or the middle between two
                window * (sinc(a, middle) + 0.5 * b * sinc(0.4, middle)),
                // nothing but a delay of some fraction; noise; nothing but rounding at a quarter of the rate
                sinc(1.0, t - c), uniform(-1, 1), std::exp(-std::pow((t - 100) / 30, 2))};
            corpus[static_cast<std::size_t>(n)].push_back(
                static_cast<float>(sign * kinds[n % 6] + uniform(-noise, noise)));
        }
    }
    return corpus;
}

} // namespace

TEST(DelayGainEstimate, FindsImpulsesAndKeepsToItsLimits)
{
    auto tooLong = impulse(65537, 50, 1.0F);
    tooLong[65536] = 100.0F;
    std::vector<std::tuple<std::vector<float>, float, float, int>> cases = {
        {std::vector<float>(100), 0.5F, 0.0F, 0},
        // One bin, in which every position scores the same: the mean is the sum of all taps.
        {{0.5F, 1.0F, 0.25F, 0.0F, 0.0F, 0.0F}, 0.0F, 1.75F, 0},
        {tooLong, 0.5F, 1.0F, 50},
        // One position is left for a peak at 32778, none beyond it. Over 10 samples the band's phases spread
        // by more than a turn, and over those the sum with the positive sign is larger: 1.37 on average,
        // not 1.13.
        {impulse(65536, 32778, 1.0F), 0.5F, 1.0F, 32768},
        {impulse(65536, 32779, 1.0F), 0.5F, 0.0F, 32779},
        {impulse(65536, 65535, 1.0F), 0.5F, 0.0F, 65535}};
    for (const int position : {0, 3, 479, 4090, 20000, 32768})
        for (const float centre : {0.5F, 0.1F, 1.0F})
            for (const float value : {1.0F, -40.0F})
                cases.push_back({impulse(position + 5, position, value), centre, value, position});
    for (const auto& [taps, centre, gain, delay] : cases)
    {
        const SEstimate found = estimate(taps, centre);
        EXPECT_NEAR(found.gain, gain, kMeanError * std::abs(gain)) << delay;
        EXPECT_EQ(found.delay, delay) << gain << " at " << centre;
    }
    EXPECT_TRUE(std::isnan(estimate({1.0F, NAN, 0.0F, 0.0F, 0.0F}).gain));
}

TEST(DelayGainEstimate, RefusesBadArgumentsAndWritesNothing)
{
    const auto taps = impulse(2000001, 0, 1.0F);
    const float* x = taps.data();
    const std::tuple<const float*, int, float, int> cases[] = {
        {nullptr, 10, 0.5F, 173}, {x, 4, 0.5F, 173},    {x, -1, 0.5F, 173},
        {x, 2000001, 0.5F, 173},  {x, 10, -1e-3F, 173}, {x, 10, 1.001F, 173},
        {x, 10, NAN, 173},        {x, 5, 0.5F, 0},      {x, 2000000, 0.5F, 0}};
    for (const auto& [filter, length, centre, status] : cases)
    {
        float gain = 77.0F;
        int delay = 77;
        EXPECT_EQ(estimateFilterDelayGain(filter, length, centre, gain, delay), status)
            << length << " at " << centre;
        EXPECT_EQ(gain == 77.0F && delay == 77, status != 0);
    }
}

TEST(DelayGainEstimate, RecoversWhenMemoryOrPlanCouldNotBeHad)
{
    const auto before = readAccounting();
    CDelayGainEstimator kept;
    const auto statusWith = [&kept](int allocations, bool plansFail) {
        const korvotest::CFaults faults(allocations, plansFail);
        return kept.estimate(impulse(10, 2, 1.0F).data(), 10, 0.5F).status;
    };
    EXPECT_EQ(statusWith(0, false), 174);
    EXPECT_EQ(statusWith(1, false), 174);
    EXPECT_EQ(statusWith(2, true), 175);
    EXPECT_EQ(readAccounting().current, before.current) << "everything is given back";
    EXPECT_EQ(statusWith(2, false), 0);
    EXPECT_EQ(readAccounting().current, before.current + 262144 + 262152);
}

TEST(DelayGainEstimate, AgreesWithADirectTransformInDoublePrecision)
{
    auto random = korvotest::makeRandom(4101);
    for (const float centre : {0.02F, 0.1F, 0.2F, 0.3F, 0.4F, 0.5F, 0.6F, 0.75F})
    {
        const auto taps = korvotest::makeNoise(random, 40);
        const auto bin = [c = std::round(centre * 32768.0)](double edge) {
            return static_cast<std::size_t>(std::round(c * edge));
        };
        std::vector<std::complex<double>> spectrum(32769);
        for (std::size_t k = bin(0.793701); k <= bin(1.259921); ++k)
            for (std::size_t i = 0; i < taps.size(); ++i)
                spectrum[k] += static_cast<double>(taps[i]) * phasor(i, k);
        double gain = 0.0;
        for (std::size_t k = bin(0.95); k <= bin(1.05); ++k)
            gain += std::abs(spectrum[k]) / static_cast<double>(bin(1.05) - bin(0.95) + 1);
        const auto score = [&](std::size_t position, double sign) {
            double sum = 0.0;
            for (std::size_t k = bin(0.793701); k <= bin(1.259921); ++k)
                sum += std::abs(spectrum[k] + sign * gain * phasor(position, k));
            return sum;
        };
        const auto peak = static_cast<std::size_t>(maxAbsIdx(taps.data(), 40));
        double best = 0.0;
        for (std::size_t i = std::max(peak, std::size_t{10}) - 10; i <= peak + 10; ++i)
            best = std::max({best, score(i, 1.0), score(i, -1.0)});

        const SEstimate found = estimate(taps, centre);
        EXPECT_NEAR(std::abs(found.gain) / gain, 1.0, kMeanError) << centre;
        const double reached = score(static_cast<std::size_t>(found.delay), found.gain > 0.0F ? 1.0 : -1.0);
        EXPECT_NEAR(reached / best, 1.0, 1e-5) << centre;
    }
}

TEST(DelayGainEstimate, SpectrumAndTransformsDecideAlike)
{
    auto corpus = makeCorpus(4102, 200);
    for (const float size : {1e-3F, 1e-20F})
        corpus.push_back(impulse(480, 7, size));
    int bySpectrum = 0;
    for (std::size_t n = 0; n < corpus.size(); ++n)
    {
        const float centre = n % 4 == 3 ? 0.15F : 0.5F;
        const SEstimate fast = estimate(corpus[n], centre);
        const SEstimate plain = estimate(corpus[n], centre, EDelaySearch::ByTransforms);
        EXPECT_TRUE(fast.delay == plain.delay && fast.gain == plain.gain) << n;
        bySpectrum += fast.decidedBy == EDelaySearch::BySpectrumIfClear ? 1 : 0;
    }
    EXPECT_GE(bySpectrum, 160) << "the fast way leaves too much open";
    EXPECT_LE(bySpectrum, 199) << "no filter of these takes the way in between";
}

TEST(DelayGainEstimateThreads, SeveralAtOnceBesideAHostThatPlans)
{
    const auto corpus = makeCorpus(4103, 10);
    std::vector<SEstimate> expected;
    for (const auto& taps : corpus)
        expected.push_back(estimate(taps));

    const auto estimateAll = [&] {
        for (std::size_t n = 0; n < corpus.size(); ++n)
        {
            const int length = static_cast<int>(corpus[n].size());
            const SEstimate found = n % 2 == 0
                                        ? estimate(corpus[n])
                                        : CDelayGainEstimator().estimate(corpus[n].data(), length, 0.5F);
            EXPECT_TRUE(found.delay == expected[n].delay && found.gain == expected[n].gain) << n;
        }
    };
    const std::jthread host([](const std::stop_token& stop) {
        std::vector<float> in(4096);
        fftwf_complex out[2049];
        for (int size = 64; !stop.stop_requested(); size = size % 4096 + 64)
            fftwf_destroy_plan(fftwf_plan_dft_r2c_1d(size, in.data(), out, FFTW_ESTIMATE));
    });
    const std::jthread first(estimateAll), second(estimateAll), third(estimateAll);
}
