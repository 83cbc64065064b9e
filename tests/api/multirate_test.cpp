// SPDX-License-Identifier: GPL-3.0-or-later
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <limits>
#include <numbers>

#include "api/high_rate_path.h"
#include "api/multirate_filter.h"
#include "api/multirate_tables.h"
#include "tests/support/random.h"

namespace {

using namespace korvo;
using floats_t = std::vector<float>;

constexpr uint32_t kRatios[] = {2, 4}; ///< by row

/// One channel with filters and buffers of its own.
struct SChannel
{
    FIR_MULTIRATE_FILTER_tag decimator{}, interpolator{}, highPass{};
    floats_t delayBuffer = floats_t(kDelayBufferSize);
    uint32_t delayIndex = 0;

    explicit SChannel(std::size_t row) { EXPECT_TRUE(prepareChannel(parts(), row)); }
    SChannel(const SChannel&) = delete;
    SChannel& operator=(const SChannel&) = delete;
    ~SChannel()
    {
        for (FIR_MULTIRATE_FILTER_tag* filter : {&decimator, &interpolator, &highPass})
            releaseFIRcoefs(filter);
    }
    SHighRateChannel parts() { return {decimator, interpolator, highPass, delayBuffer.data(), delayIndex}; }

    /// The whole path for a mono signal, in place, with an engine that changes nothing. Gives the high band.
    floats_t run(float* samples, uint32_t frames, SHighBand band = {1.0F, 0})
    {
        floats_t low(frames), high(frames);
        processHighRate(parts(), {samples, low.data(), high.data(), frames, 0, 1}, band, [](uint32_t) {});
        return high;
    }
    floats_t run(floats_t& samples) { return run(samples.data(), static_cast<uint32_t>(samples.size())); }
};

TEST(MultirateTables, AreWhatTwoLowPassesLeaveOfAnImpulse)
{
    const struct
    {
        std::size_t stored, size, centre, shift;
        float atCentre;
    } rows[] = {{kLowPass2Size, kHighPass2Size, 41, 3, 0.731328905F},
                {kLowPass4Size, kHighPass4Size, 81, 7, 0.865378559F}};
    for (std::size_t i = 0; i < 2; ++i)
    {
        const auto& row = rows[i];
        const SResamplingFilter& tables = resamplingFilters[i];
        std::vector<long double> lowPass(tables.lowPass, tables.lowPass + row.stored);
        lowPass.resize(row.size + row.shift, 0.0L);
        for (std::size_t n = 0; n < row.size; ++n)
        {
            long double rest = n == row.centre ? 1.0L : 0.0L;
            for (std::size_t k = 0; k <= n + row.shift; ++k)
                rest -= lowPass[k] * lowPass[n + row.shift - k];
            EXPECT_EQ(tables.highPass[n], static_cast<float>(rest)) << "row " << i << " at " << n;
        }
        EXPECT_EQ(tables.highPass[row.centre], row.atCentre);
    }
    // The interpolator of ratio 4 reads on behind its table: three zeros, and the other ratio's high-pass.
    for (std::size_t gap = kLowPass4Size; gap < 88; ++gap)
        EXPECT_EQ(resamplingFilters[1].lowPass[gap], 0.0F);
    EXPECT_EQ(resamplingFilters[1].lowPass + 88, resamplingFilters[0].highPass);
}

TEST(MultirateFilter, IsEmptyAfterMemoryRanOutAndTheBlockPassesThrough)
{
    SChannel channel(0);
    channel.highPass.length = 20'000'000; // banks of more than the allocator gives
    EXPECT_FALSE(prepareFIRcoefs(&channel.highPass, kHighPassKind));
    EXPECT_EQ(channel.highPass.banks[0], nullptr);
    EXPECT_EQ(channel.highPass.delayLine, nullptr);
    floats_t block = {1, 2, 3, 4};
    channel.run(block);
    EXPECT_EQ(block, (floats_t{1, 2, 3, 4}));
}

/// Taps of one phase over a ring of their padded length; from the tables and not from the banks.
struct SPlainFir
{
    floats_t taps, ring;
    std::size_t index = 0;

    SPlainFir(const float* coefs, int32_t count, std::size_t phases = 1, std::size_t phase = 0)
    {
        for (std::size_t j = 0; j < static_cast<std::size_t>(count); ++j)
            taps.push_back(coefs[phases * j + phase]);
        taps.resize((taps.size() + 3) / 4 * 4);
        ring.resize(taps.size());
    }
    void step() { index = (index + ring.size() - 1) % ring.size(); }
    float dot() const
    {
        const std::size_t length = ring.size();
        float lanes[16] = {};
        for (std::size_t m = 0; m < length; ++m)
            lanes[m < length / 16 * 16 ? m % 16 : m % 4] += taps[(m + length - index) % length] * ring[m];
        const auto lane = [&](std::size_t k) {
            return (lanes[k] + lanes[k + 4]) + (lanes[k + 8] + lanes[k + 12]);
        };
        return ((lane(0) + lane(1)) + lane(2)) + lane(3);
    }
};

/// The path sample by sample, with an engine that takes the low band to 0.75.
class CPlainChannel
{
public:
    explicit CPlainChannel(const SResamplingFilter& tables, std::size_t ratio)
        : m_decimator(tables.lowPass, tables.lowPassLength),
          m_highPass(tables.highPass, tables.highPassLength)
    {
        for (std::size_t phase = 0; phase < ratio; ++phase)
            m_interpolator.emplace_back(tables.lowPass, tables.lowPassLength / 2, ratio, phase);
    }

    floats_t process(const floats_t& in, SHighBand band)
    {
        const std::size_t ratio = m_interpolator.size();
        floats_t out;
        for (std::size_t f = 0; f < in.size(); ++f)
        {
            m_highPass.ring[m_highPass.index] = std::exchange(m_delay[m_delayIndex], in[f]);
            m_delayIndex = m_delayIndex == 0 ? band.totalDelay : m_delayIndex - 1;
            out.push_back(m_highPass.dot() * band.gain);
            m_highPass.step();
            m_decimator.ring[m_decimator.index] = in[f];
            if (f % ratio == ratio - 1)
                m_low[f / ratio] = m_decimator.dot() * 0.75F;
            m_decimator.step();
        }
        for (std::size_t f = 0; f < in.size(); ++f)
        {
            for (SPlainFir& phase : m_interpolator)
                if (f % ratio == 0)
                {
                    phase.ring[phase.index] = m_low[f / ratio];
                    phase.step();
                }
            out[f] += m_interpolator[f % ratio].dot() * static_cast<float>(ratio);
        }
        return out;
    }

private:
    SPlainFir m_decimator, m_highPass;
    std::vector<SPlainFir> m_interpolator;
    floats_t m_delay = floats_t(kDelayBufferSize), m_low = floats_t(4096);
    uint32_t m_delayIndex = 0;
};

TEST(HighRatePath, EqualsThePlainPathWhateverTheBlocks)
{
    std::mt19937 random = korvotest::makeRandom(121);
    constexpr uint32_t kChannels = 3, kChannel = 1, kMaxFrames = 300;
    for (std::size_t row = 0; row < 2; ++row)
    {
        const uint32_t ratio = kRatios[row];
        SChannel channel(1 - row);
        floats_t before(512, 1.0F);
        channel.run(before.data(), 512, {1.0F, 300});
        ASSERT_TRUE(prepareChannel(channel.parts(), row)); // leaves nothing of the other row
        CPlainChannel plain(resamplingFilters[row], ratio);
        // The low band starts with zeros in both paths: where a block is no multiple of the ratio, its stale
        // samples come out.
        floats_t sum(kMaxFrames * kChannels, 7.0F), low(sum.size()), high = sum;
        const uint32_t delays[] = {0, 1, 250, 3, kMaxTotalDelay, 120};
        for (int round = 0; round < 60; ++round)
        {
            const auto frames = static_cast<uint32_t>(
                random() % 4 == 0 ? random() % kMaxFrames : random() % (kMaxFrames / 4) * ratio);
            const floats_t in = korvotest::makeNoise(random, frames);
            for (uint32_t f = 0; f < frames; ++f)
                sum[f * kChannels + kChannel] = in[f];
            const SHighBand band{-0.5F, delays[round / 10]};
            const SHighRateBlock block{sum.data(), low.data(), high.data(), frames, kChannel, kChannels};
            processHighRate(channel.parts(), block, band, [&](uint32_t lowFrames) {
                ASSERT_EQ(lowFrames, frames / ratio);
                for (uint32_t m = 0; m < lowFrames; ++m)
                    low[m * kChannels + kChannel] *= 0.75F;
            });
            const floats_t expected = plain.process(in, band);
            for (uint32_t f = 0; f < frames; ++f)
                ASSERT_EQ(sum[f * kChannels + kChannel], expected[f]) << "round " << round << " frame " << f;
            ASSERT_TRUE(sum[0] == 7.0F && high[2] == 7.0F) << "another channel was written";
        }
    }
}

TEST(HighRatePath, AnyMultipleOfTheRatioIsAsGoodAsTheWhole)
{
    std::mt19937 random = korvotest::makeRandom(122);
    for (std::size_t row = 0; row < 2; ++row)
    {
        floats_t whole = korvotest::makeNoise(random, 4096), pieces = whole;
        SChannel(row).run(whole);
        SChannel channel(row);
        for (uint32_t done = 0, frames = 0; done < 4096; done += frames)
        {
            frames = std::min(kRatios[row] * static_cast<uint32_t>(random() % 50), 4096 - done);
            channel.run(pieces.data() + done, frames);
        }
        EXPECT_EQ(pieces, whole) << "row " << row;
    }
}

TEST(HighRatePath, BringsAnImpulseOutWhereItMust)
{
    const auto expectPeak = [](const floats_t& samples, long at) {
        const auto peak = std::ranges::max_element(samples, {}, [](float x) { return std::fabs(x); });
        EXPECT_EQ(peak - samples.begin(), at);
    };
    floats_t sum(400), low(400), sum4(400);
    sum[0] = sum4[0] = 1.0F;
    const floats_t high = SChannel(0).run(sum);
    std::ranges::transform(sum, high, low.begin(), std::minus());
    expectPeak(low, 41);
    expectPeak(high, 42);
    expectPeak(SChannel(1).run(sum4), 82);
}

/// Level in dB of what comes out at the frequency of a tone that goes in, and the RMS of all that comes out
/// against that of the tone. `bin` is in units of rate / 4096.
std::pair<double, double> levelsOf(std::size_t row, int bin)
{
    constexpr int kWindow = 4096;
    const auto tone = [&](int i) { return std::polar(1.0, 2 * std::numbers::pi * bin * i / kWindow); };
    floats_t samples;
    for (int i = 0; i < 2 * kWindow; ++i)
        samples.push_back(static_cast<float>(tone(i).imag()));
    SChannel(row).run(samples);
    std::complex<double> at = 0.0;
    double power = 0.0;
    for (int i = kWindow; i < 2 * kWindow; ++i)
    {
        const auto out = static_cast<double>(samples[static_cast<std::size_t>(i)]);
        at += out * tone(i);
        power += out * out;
    }
    return {20 * std::log10(std::abs(at) / (kWindow / 2.0)), std::sqrt(power / (kWindow / 2.0))};
}

TEST(HighRatePath, KeepsTheLevelOfATone)
{
    std::pair<double, double> deepest; // level, frequency
    for (int bin = 5; bin < 2048; bin += 17)
    {
        const double frequency = bin * 192000.0 / 4096;
        const double level = levelsOf(0, bin).first;
        EXPECT_LT(level, 0.05) << frequency << " Hz";
        EXPECT_GT(level, frequency <= 16000 || frequency >= 40000 ? -0.05 : -0.84) << frequency << " Hz";
        deepest = std::min(deepest, {level, frequency});
        EXPECT_NEAR(levelsOf(1, bin).first, 0.0, 0.25) << bin * 384000.0 / 4096 << " Hz";
    }
    EXPECT_NEAR(deepest.first, -0.83, 0.01); // the high band is one frame late
    EXPECT_NEAR(deepest.second, 27000, 1000);
    EXPECT_NEAR(levelsOf(1, 53).second, 2.0, 0.02); // near 5 kHz, with the images
}

TEST(HighRatePath, KeepsTheDelayInsideItsBuffer)
{
    constexpr float kInf = std::numeric_limits<float>::infinity();
    const float nan = std::nanf("");
    const struct
    {
        SHighBandSettings settings;
        uint32_t internalRate, ratio, totalDelay;
        float gain;
    } rows[] = {
        {{-2, 100, false, 0.25F, 7}, 96000, 2, 200, -2}, // the host's delay and gain are off
        {{-2, 100, true, 0.25F, 1}, 96000, 2, 2 * 196, -0.5F},
        {{1, 100, true, 0.5F, 1}, 88200, 4, 4 * 188, 0.5F}, // 88, not 88.2
        {{1, 0, true, 1, 0.006F}, 96000, 2, 2, 1},          // 0.576 + 0.5
        {{1, 0, true, 1, 0.005F}, 96000, 2, 0, 1},
        {{1, 0, true, 1, -5}, 96000, 2, 0, 1},
        {{1, 500, true, 1, 100}, 96000, 4, 39999, 1},
        {{1, 0xFFFFFFFF, false, 1, 0}, 96000, 2, 39999, 1},
        {{1, 0, true, 1, nan}, 96000, 2, 0, 1},
        {{1, 0, true, 1, kInf}, 96000, 4, 39999, 1},
        {{1, 0, true, 1, -kInf}, 96000, 4, 0, 1},
        {{1, 0, true, kInf, 1e30F}, 88200, 2, 39999, kInf},
    };
    for (const auto& row : rows)
    {
        const SHighBand band = highBandFor(row.settings, row.internalRate, row.ratio);
        EXPECT_EQ(band.totalDelay, row.totalDelay) << row.settings.channelDelay;
        EXPECT_EQ(band.gain, row.gain) << row.settings.channelDelay;
    }
}

} // namespace
