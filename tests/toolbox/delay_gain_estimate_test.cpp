// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/delay_gain_estimate.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>
#include <thread>
#include <vector>

#include "tests/support/random.h"
#include "tests/toolbox/fault_injection.h"
#include "toolbox/delay_gain_estimator.h"

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
    return CDelayGainEstimator().estimate(taps.data(), static_cast<int>(taps.size()), centre, way);
}

/// The whole estimate in double precision with a direct DFT of the bins that matter.
class CReference
{
public:
    CReference(const std::vector<float>& taps, double centre)
    {
        const double centreBin = std::floor(centre * 32768.0 + 0.5);
        m_low = bin(centreBin * 0.793701);
        for (int k = m_low; k <= bin(centreBin * 1.259921); ++k)
            m_spectrum.push_back(transform(taps, k));
        const int low = bin(centreBin * 0.95);
        const int high = bin(centreBin * 1.05);
        for (int k = low; k <= high; ++k)
            gain += std::abs(m_spectrum[static_cast<std::size_t>(k - m_low)]) / (high - low + 1);
    }

    double score(int position, int sign) const
    {
        double sum = 0.0;
        for (std::size_t k = 0; k < m_spectrum.size(); ++k)
            sum += std::abs(m_spectrum[k] + sign * gain * unit(position, m_low + static_cast<int>(k)));
        return sum;
    }

    double gain = 0.0;

private:
    static int bin(double position) { return std::min(static_cast<int>(std::floor(position + 0.5)), 32768); }
    static std::complex<double> unit(int i, int k)
    {
        return std::polar(1.0, -2.0 * std::numbers::pi * static_cast<double>(long{i} * k % 65536) / 65536.0);
    }
    static std::complex<double> transform(const std::vector<float>& taps, int k)
    {
        std::complex<double> sum;
        const std::complex<double> turn = unit(1, k);
        for (auto tap = taps.rbegin(); tap != taps.rend(); ++tap)
            sum = sum * turn + static_cast<double>(*tap);
        return sum;
    }

    int m_low;
    std::vector<std::complex<double>> m_spectrum;
};

/// `count` impulse responses as correction filters have them, of five kinds in turn, every second five
/// inverted and every second ten with noise over them.
std::vector<std::vector<float>> makeCorpus(unsigned seed, int count)
{
    auto random = korvotest::makeRandom(seed);
    const auto uniform = [&random](double low, double high) {
        return std::uniform_real_distribution<double>(low, high)(random);
    };
    const auto sinc = [](double edge, double t) {
        return t == 0.0 ? edge : std::sin(std::numbers::pi * edge * t) / (std::numbers::pi * t);
    };

    std::vector<std::vector<float>> corpus;
    for (int n = 0; n < count; ++n)
    {
        std::vector<double> taps(static_cast<std::size_t>(uniform(100, 2000)));
        const double length = static_cast<double>(taps.size());
        const double a = uniform(0.3, 0.95), b = uniform(-0.8, 0.8), c = uniform(5, 60);
        for (std::size_t i = 0; i < taps.size(); ++i)
        {
            const double t = static_cast<double>(i);
            const double middle = t - 0.5 * (length - 1.0);
            switch (n % 5)
            {
            case 0: // measured: direct sound, then noise that dies away
                taps[i] = t < std::floor(c)
                              ? 0.0
                              : uniform(-0.5, 0.5) * std::exp((c - t) / 50) + (t < c + 1 ? 1 : 0);
                break;
            case 1: // minimum phase: a resonance beside the direct sound
                taps[i] = (i == 0 ? 1.0 : 0.0) + std::abs(b) * std::pow(a, t) * std::cos(c * t);
                break;
            case 2: // linear phase: a band with a step in it, about a sample or the middle between two
                taps[i] = (0.5 + 0.5 * std::cos(2 * std::numbers::pi * middle / (length + 1))) *
                          (sinc(a, middle) + 0.5 * b * sinc(0.4, middle));
                break;
            case 3: // nothing but a delay of some fraction
                taps[i] = sinc(1.0, t - c);
                break;
            default:
                taps[i] = uniform(-1, 1);
            }
        }
        const double sign = n / 5 % 2 == 1 ? -1.0 : 1.0;
        const double noise = n / 10 % 2 == 1 ? 0.02 : 0.0;
        std::vector<float>& filter = corpus.emplace_back();
        for (const double tap : taps)
            filter.push_back(static_cast<float>(sign * tap + uniform(-noise, noise)));
    }
    return corpus;
}

} // namespace

TEST(DelayGainEstimate, FindsAnImpulse)
{
    const float values[] = {1.0F, -1.0F, 0.03F, -40.0F};
    const float centres[] = {0.5F, 0.1F, 1.0F};
    for (const int position : {0, 3, 100, 479, 20000, 32768})
    {
        for (int n = 0; n < 12; ++n)
        {
            const float value = values[n % 4];
            const SEstimate found = estimate(impulse(position + 5, position, value), centres[n / 4]);
            EXPECT_NEAR(found.gain / value, 1.0F, kMeanError) << position << ", case " << n;
            EXPECT_EQ(found.delay, position) << "case " << n;
        }
    }
}

TEST(DelayGainEstimate, RefusesBadArgumentsAndWritesNothing)
{
    const auto taps = impulse(2000001, 0, 1.0F);
    struct SCase
    {
        const float* filter;
        int length;
        float centre;
        int status;
    };
    const float* x = taps.data();
    const SCase cases[] = {{nullptr, 10, 0.5F, 173}, {x, 4, 0.5F, 173},    {x, -1, 0.5F, 173},
                           {x, 2000001, 0.5F, 173},  {x, 10, -1e-3F, 173}, {x, 10, 1.001F, 173},
                           {x, 10, NAN, 173},        {x, 5, 0.5F, 0},      {x, 2000000, 0.5F, 0}};
    for (const SCase& c : cases)
    {
        float gain = 77.0F;
        int delay = 77;
        EXPECT_EQ(estimateFilterDelayGain(c.filter, c.length, c.centre, gain, delay), c.status)
            << c.length << " at " << c.centre;
        EXPECT_EQ(gain == 77.0F && delay == 77, c.status != 0);
    }
}

TEST(DelayGainEstimate, GivesEverythingBackWhenMemoryOrPlanCannotBeHad)
{
    const auto before = readAccounting();
    const auto statusWith = [](int allocations, bool plansFail) {
        const korvotest::CFaults faults(allocations, plansFail);
        return estimate(impulse(10, 2, 1.0F)).status;
    };
    EXPECT_EQ(statusWith(0, false), 174);
    EXPECT_EQ(statusWith(1, false), 174);
    EXPECT_EQ(statusWith(2, true), 175);
    EXPECT_EQ(statusWith(2, false), 0);
    EXPECT_EQ(readAccounting().current, before.current);
    EXPECT_GE(readAccounting().most, before.current + 262144 + 262152) << "the buffers are counted";
}

TEST(DelayGainEstimate, HandlesFiltersAtItsLimits)
{
    const auto expect = [](const std::vector<float>& taps, float centre, float gain, int delay) {
        const SEstimate found = estimate(taps, centre);
        EXPECT_EQ(found.status, 0);
        EXPECT_NEAR(found.gain, gain, kMeanError) << delay;
        EXPECT_EQ(found.delay, delay);
    };
    expect(std::vector<float>(100), 0.5F, 0.0F, 0);
    // One bin, in which every position scores the same: the mean is the sum of all taps.
    expect({0.5F, 1.0F, 0.25F, 0.0F, 0.0F, 0.0F}, 0.0F, 1.75F, 0);
    auto tooLong = impulse(65537, 50, 1.0F);
    tooLong[65536] = 100.0F;
    expect(tooLong, 0.5F, 1.0F, 50);
    // One position is left for a peak at 32778, none beyond it. Over 10 samples the band's phases spread by
    // more than a turn, and over those the sum with the positive sign is larger: 1.37 on average
    // against 1.13.
    expect(impulse(65536, 32778, 1.0F), 0.5F, 1.0F, 32768);
    for (const int position : {32779, 65535})
        expect(impulse(65536, position, 1.0F), 0.5F, 0.0F, position);
    EXPECT_TRUE(std::isnan(estimate({1.0F, NAN, 0.0F, 0.0F, 0.0F}).gain));
}

TEST(DelayGainEstimate, AgreesWithDoublePrecision)
{
    for (const auto& taps : makeCorpus(4101, 15))
    {
        const SEstimate found = estimate(taps);
        const CReference reference(taps, 0.5);
        EXPECT_NEAR(std::abs(found.gain) / reference.gain, 1.0, kMeanError);
        const auto isSmaller = [](float a, float b) { return std::abs(a) < std::abs(b); };
        const int peak =
            static_cast<int>(std::max_element(taps.begin(), taps.end(), isSmaller) - taps.begin());
        double best = 0.0;
        for (int i = std::max(peak - 10, 0); i <= peak + 10; ++i)
            best = std::max({best, reference.score(i, +1), reference.score(i, -1)});
        EXPECT_NEAR(reference.score(found.delay, found.gain > 0.0F ? +1 : -1) / best, 1.0, 1e-5);
    }
}

TEST(DelayGainEstimate, SpectrumAndTransformsDecideAlike)
{
    const auto corpus = makeCorpus(4102, 200);
    int bySpectrum = 0;
    for (std::size_t n = 0; n < corpus.size(); ++n)
    {
        const SEstimate fast = estimate(corpus[n]);
        const SEstimate plain = estimate(corpus[n], 0.5F, EDelaySearch::ByTransforms);
        EXPECT_EQ(fast.delay, plain.delay) << n;
        EXPECT_EQ(fast.gain, plain.gain) << n;
        bySpectrum += fast.decidedBy == EDelaySearch::BySpectrumIfClear ? 1 : 0;
    }
    EXPECT_GE(bySpectrum, 160) << "the fast way leaves too much open";
    EXPECT_LE(bySpectrum, 199) << "no filter of these takes the way in between";
}

TEST(DelayGainEstimate, LeavesTheUnclearToTheTransforms)
{
    // Even symmetry: the two middle taps fit equally well. Their scores differ by rounding alone.
    std::vector<float> symmetric(480);
    for (std::size_t i = 0; i < 240; ++i)
        symmetric[239 - i] = symmetric[240 + i] =
            std::cos(0.3F * static_cast<float>(i)) / static_cast<float>(i + 1);
    EXPECT_EQ(estimate(symmetric).decidedBy, EDelaySearch::ByTransforms);

    // Nothing but rounding is left at a quarter of the rate.
    std::vector<float> lowPass(480);
    for (std::size_t i = 0; i < 480; ++i)
        lowPass[i] = std::exp(-0.5F * std::pow((static_cast<float>(i) - 200.0F) / 20.0F, 2.0F));
    EXPECT_EQ(estimate(lowPass).decidedBy, EDelaySearch::ByTransforms);
    EXPECT_EQ(estimate(impulse(480, 7, 1e-20F)).decidedBy, EDelaySearch::ByTransforms);
    EXPECT_EQ(estimate(impulse(480, 7, 1e30F)).decidedBy, EDelaySearch::ByTransforms);
    EXPECT_EQ(estimate(impulse(480, 7, 1e-3F)).decidedBy, EDelaySearch::BySpectrumIfClear);
}

TEST(DelayGainEstimateThreads, SeveralAtOnceBesideAHostThatPlans)
{
    const auto corpus = makeCorpus(4103, 10);
    std::vector<SEstimate> expected;
    for (std::size_t n = 0; n < corpus.size(); ++n)
        expected.push_back(estimate(corpus[n]));

    const auto estimateAll = [&] {
        CDelayGainEstimator estimator;
        for (std::size_t n = 0; n < corpus.size(); ++n)
        {
            const auto& taps = corpus[n];
            const SEstimate found =
                n % 2 == 0 ? estimate(taps)
                           : estimator.estimate(taps.data(), static_cast<int>(taps.size()), 0.5F);
            EXPECT_EQ(found.delay, expected[n].delay);
            EXPECT_EQ(found.gain, expected[n].gain);
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
