// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/delay_gain_estimate.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <limits>
#include <numbers>
#include <thread>
#include <vector>

#include "tests/support/random.h"
#include "tests/toolbox/fault_injection.h"
#include "tests/toolbox/filter_corpus.h"
#include "toolbox/delay_gain_estimator.h"

using namespace korvotoolbox;
using korvotest::makeFilterCorpus;
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

} // namespace

TEST(DelayGainEstimate, FindsAnImpulse)
{
    for (const float centre : {0.1F, 0.5F, 0.75F, 1.0F})
    {
        for (const int position : {0, 3, 100, 479, 20000, 32768})
        {
            for (const float value : {1.0F, -1.0F, 0.03F, -40.0F})
            {
                float gain = 0.0F;
                int delay = -1;
                const auto taps = impulse(position + 5, position, value);
                EXPECT_EQ(estimateFilterDelayGain(taps.data(), position + 5, centre, gain, delay), 0);
                EXPECT_NEAR(gain / value, 1.0F, kMeanError) << position << " at " << centre;
                EXPECT_EQ(delay, position) << value << " at " << centre;
            }
        }
    }
}

TEST(DelayGainEstimate, RefusesBadArgumentsAndWritesNothing)
{
    const auto taps = impulse(2000001, 0, 1.0F);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    struct SCase
    {
        const float* filter;
        int length;
        float centre;
        int status;
    };
    for (const SCase& c : {SCase{nullptr, 10, 0.5F, 173},
                           {taps.data(), 4, 0.5F, 173},
                           {taps.data(), -1, 0.5F, 173},
                           {taps.data(), 2000001, 0.5F, 173},
                           {taps.data(), 10, -0.001F, 173},
                           {taps.data(), 10, 1.001F, 173},
                           {taps.data(), 10, nan, 173},
                           {taps.data(), 5, 0.5F, 0},
                           {taps.data(), 2000000, 0.5F, 0}})
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
    const auto taps = impulse(10, 2, 1.0F);
    const auto before = readAccounting();
    for (const int first : {0, 1})
    {
        const korvotest::CFailingAllocations failing(first);
        EXPECT_EQ(estimate(taps).status, 174);
        EXPECT_EQ(readAccounting().current, before.current);
    }
    {
        const korvotest::CFailingPlans failing;
        EXPECT_EQ(estimate(taps).status, 175);
        EXPECT_EQ(readAccounting().current, before.current);
    }
    EXPECT_EQ(estimate(taps).status, 0);
    EXPECT_EQ(readAccounting().current, before.current);
    EXPECT_GE(readAccounting().most, before.current + 262144 + 262152) << "the buffers are counted";
}

TEST(DelayGainEstimate, HandlesFiltersAtItsLimits)
{
    const SEstimate zeros = estimate(std::vector<float>(100));
    EXPECT_EQ(zeros.status, 0);
    EXPECT_EQ(zeros.gain, 0.0F);
    EXPECT_EQ(zeros.delay, 0);

    // No candidate position is left from 32779 on.
    for (const int position : {32779, 40000, 65535})
    {
        const SEstimate late = estimate(impulse(65536, position, 1.0F));
        EXPECT_EQ(late.status, 0);
        EXPECT_EQ(late.gain, 0.0F);
        EXPECT_EQ(late.delay, position);
    }
    EXPECT_EQ(estimate(impulse(65536, 32778, 1.0F)).delay, 32768) << "the one that is left";

    auto tooLong = impulse(65537, 50, 1.0F);
    tooLong[65536] = 100.0F;
    EXPECT_EQ(estimate(tooLong).delay, 50);
    EXPECT_NEAR(estimate(tooLong).gain, 1.0F, kMeanError);

    // One bin, in which every position scores the same: the mean is the sum of all taps.
    const SEstimate direct = estimate({0.5F, 1.0F, 0.25F, 0.0F, 0.0F, 0.0F}, 0.0F);
    EXPECT_NEAR(direct.gain, 1.75F, 1e-6F);
    EXPECT_EQ(direct.delay, 0);

    EXPECT_TRUE(std::isnan(estimate({1.0F, NAN, 0.0F, 0.0F, 0.0F}).gain));
}

TEST(DelayGainEstimate, AgreesWithDoublePrecision)
{
    auto random = korvotest::makeRandom(4101);
    for (const auto& filter : makeFilterCorpus(random, 20))
    {
        const SEstimate found = estimate(filter.taps);
        const CReference reference(filter.taps, 0.5);
        EXPECT_NEAR(std::abs(found.gain) / reference.gain, 1.0, kMeanError) << filter.kind;
        const int peak =
            static_cast<int>(std::max_element(filter.taps.begin(), filter.taps.end(),
                                              [](float a, float b) { return std::abs(a) < std::abs(b); }) -
                             filter.taps.begin());
        double best = 0.0;
        for (int i = std::max(peak - 10, 0); i <= peak + 10; ++i)
            best = std::max({best, reference.score(i, +1), reference.score(i, -1)});
        EXPECT_NEAR(reference.score(found.delay, found.gain > 0.0F ? +1 : -1) / best, 1.0, 1e-5)
            << filter.kind;
    }
}

TEST(DelayGainEstimate, SpectrumAndTransformsDecideAlike)
{
    auto random = korvotest::makeRandom(4102);
    const auto corpus = makeFilterCorpus(random, 200);
    int bySpectrum = 0;
    for (const auto& filter : corpus)
    {
        const SEstimate fast = estimate(filter.taps);
        const SEstimate plain = estimate(filter.taps, 0.5F, EDelaySearch::ByTransforms);
        EXPECT_EQ(fast.delay, plain.delay) << filter.kind << ", " << filter.taps.size();
        EXPECT_EQ(fast.gain, plain.gain) << filter.kind << ", " << filter.taps.size();
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
    auto random = korvotest::makeRandom(4103);
    const auto corpus = makeFilterCorpus(random, 10);
    std::vector<SEstimate> expected;
    for (const auto& filter : corpus)
        expected.push_back(estimate(filter.taps));

    std::atomic<bool> done{false};
    std::thread host([&done] {
        std::vector<float> in(4096);
        std::vector<std::complex<float>> out(4096);
        for (int size = 64; !done.load(); size = size % 4096 + 64)
            fftwf_destroy_plan(fftwf_plan_dft_r2c_1d(
                size, in.data(), reinterpret_cast<fftwf_complex*>(out.data()), FFTW_ESTIMATE));
    });
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t)
    {
        threads.emplace_back([&, t] {
            CDelayGainEstimator estimator;
            for (std::size_t i = 0; i < corpus.size(); ++i)
            {
                const std::size_t which = (i + static_cast<std::size_t>(3 * t)) % corpus.size();
                const auto& taps = corpus[which].taps;
                const SEstimate found =
                    t == 0 ? estimate(taps)
                           : estimator.estimate(taps.data(), static_cast<int>(taps.size()), 0.5F);
                EXPECT_EQ(found.delay, expected[which].delay);
                EXPECT_EQ(found.gain, expected[which].gain);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    done.store(true);
    host.join();
}
