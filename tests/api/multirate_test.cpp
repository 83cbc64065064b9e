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
};

/// The whole path for a mono signal with an engine that changes nothing; the high band apart, if asked for.
floats_t runMono(std::size_t row, const floats_t& in, floats_t* highBand = nullptr)
{
    SChannel channel(row);
    floats_t sum = in, low(in.size()), high(in.size());
    const SHighRateBlock block{sum.data(), low.data(), high.data(), static_cast<uint32_t>(in.size()), 0, 1};
    processHighRate(channel.parts(), block, {1.0F, 0}, [](uint32_t) {});
    if (highBand != nullptr)
        *highBand = high;
    return sum;
}

TEST(MultirateTables, AreWhatTwoLowPassesLeaveOfAnImpulse)
{
    struct
    {
        std::size_t row, stored, middle, centre, shift;
        float atCentre, beside;
    } const rows[] = {{0, kLowPass2Size, 22, 41, 3, 0.731328905F, -0.235768557F},
                      {1, kLowPass4Size, 44, 81, 7, 0.865378559F, -0.130336538F}};
    for (const auto& row : rows)
    {
        const SResamplingFilter& tables = resamplingFilters[row.row];
        std::vector<long double> lowPass(tables.lowPass, tables.lowPass + row.stored);
        lowPass.resize(2 * row.middle + 1, 0.0L);
        for (std::size_t i = 0; i < lowPass.size(); ++i)
            EXPECT_EQ(lowPass[i], lowPass[2 * row.middle - i]) << "row " << row.row << " at " << i;
        for (std::size_t n = 0; n < static_cast<std::size_t>(tables.highPassLength); ++n)
        {
            long double rest = n == row.centre ? 1.0L : 0.0L;
            for (std::size_t i = 0; i <= n + row.shift; ++i)
                if (i < lowPass.size() && n + row.shift - i < lowPass.size())
                    rest -= lowPass[i] * lowPass[n + row.shift - i];
            EXPECT_EQ(tables.highPass[n], static_cast<float>(rest)) << "row " << row.row << " at " << n;
        }
        EXPECT_EQ(tables.highPass[row.centre], row.atCentre);
        EXPECT_EQ(tables.highPass[row.centre - 1], row.beside);
        EXPECT_EQ(tables.highPass[row.centre + 1], row.beside);
        EXPECT_EQ(tables.highPass[0], 0.0F);
    }
    // The order in memory, on which the interpolator of ratio 4 relies.
    EXPECT_EQ(resamplingFilters[1].highPass + 162, resamplingFilters[1].lowPass);
    EXPECT_EQ(resamplingFilters[1].lowPass + 88, resamplingFilters[0].highPass);
    EXPECT_EQ(resamplingFilters[0].highPass + 82, resamplingFilters[0].lowPass);
    for (std::size_t gap = 85; gap < 88; ++gap)
        EXPECT_EQ(resamplingFilters[1].lowPass[gap], 0.0F);
}

TEST(MultirateFilter, IsPreparedForItsRow)
{
    struct
    {
        std::size_t row;
        uint32_t decimator, interpolator, highPass;
    } const rows[] = {{0, 44, 24, 84}, {1, 84, 44, 164}};
    for (const auto& row : rows)
    {
        SChannel channel(1);
        floats_t block(512, 1.0F), low(512), high(512);
        const SHighRateBlock blocks{block.data(), low.data(), high.data(), 512, 0, 1};
        processHighRate(channel.parts(), blocks, {1.0F, 300}, [](uint32_t) {});
        ASSERT_TRUE(prepareChannel(channel.parts(), row.row)); // again: what was there is replaced
        EXPECT_EQ(channel.decimator.paddedLength, row.decimator);
        EXPECT_EQ(channel.interpolator.paddedLength, row.interpolator);
        EXPECT_EQ(channel.highPass.paddedLength, row.highPass);
        EXPECT_NE(channel.interpolator.banks[15], nullptr); // stays for the next change of rate
        EXPECT_EQ(channel.decimator.banks[4], nullptr);
        block.assign(512, 0.0F);
        processHighRate(channel.parts(), blocks, {1.0F, 300}, [](uint32_t) {});
        EXPECT_EQ(block, floats_t(512)) << "something of the other row is left";
    }
    // Phase 1 of ratio 4 reads on behind its table, as far as the centre of the other ratio's high-pass.
    EXPECT_EQ(SChannel(1).interpolator.banks[4][32], 0.731328905F);
}

TEST(MultirateFilter, IsEmptyAfterMemoryRanOutAndTheBlockPassesThrough)
{
    SChannel channel(0);
    channel.highPass.length = 20'000'000; // banks of more than the allocator gives
    EXPECT_FALSE(prepareFIRcoefs(&channel.highPass, kHighPassKind));
    EXPECT_EQ(channel.highPass.banks[0], nullptr);
    EXPECT_EQ(channel.highPass.delayLine, nullptr);

    floats_t in = {1, 2, 3, 4}, low(4), high(4);
    processHighRate(channel.parts(), {in.data(), low.data(), high.data(), 4, 0, 1}, {1.0F, 0},
                    [](uint32_t) { FAIL() << "engine called"; });
    EXPECT_EQ(in, (floats_t{1, 2, 3, 4}));
}

/// Sample by sample, from the tables and not from the banks.
class CPlainChannel
{
public:
    explicit CPlainChannel(std::size_t row)
        : m_ratio(row == 0 ? 2 : 4),
          m_decimator(resamplingFilters[row].lowPass, resamplingFilters[row].lowPassLength, 1, 0),
          m_highPass(resamplingFilters[row].highPass, resamplingFilters[row].highPassLength, 1, 0)
    {
        for (int phase = 0; phase < m_ratio; ++phase)
            m_interpolator.emplace_back(resamplingFilters[row].lowPass,
                                        resamplingFilters[row].lowPassLength / 2, m_ratio, phase);
    }

    floats_t process(const floats_t& in, SHighBand band)
    {
        floats_t high, out;
        int phase = 0;
        std::size_t written = 0;
        for (std::size_t f = 0; f < in.size(); ++f)
        {
            const float delayed = m_delay[m_delayIndex];
            m_delay[m_delayIndex] = in[f];
            m_delayIndex = m_delayIndex == 0 ? band.totalDelay : m_delayIndex - 1;
            m_highPass.push(delayed);
            high.push_back(m_highPass.dot(0) * band.gain);
            m_decimator.push(in[f]);
            if (++phase == m_ratio)
            {
                m_low[written++] = m_decimator.dot(0) * 0.75F; // what the engine of the test does
                phase = 0;
            }
        }
        for (std::size_t f = 0; f < in.size(); ++f)
        {
            const std::size_t p = f % static_cast<std::size_t>(m_ratio);
            if (p == 0)
                for (SFir& fir : m_interpolator)
                    fir.push(m_low[f / static_cast<std::size_t>(m_ratio)]);
            out.push_back(high[f] + m_interpolator[p].dot(1) * static_cast<float>(m_ratio));
        }
        return out;
    }

private:
    /// Taps of one phase over a ring of their padded length. `steps` is 1 where the index has gone on after
    /// push().
    struct SFir
    {
        floats_t taps, ring;
        std::size_t index = 0;

        SFir(const float* coefs, int count, int phases, int phase)
        {
            for (int j = 0; j < count; ++j)
                taps.push_back(coefs[phases * j + phase]);
            taps.resize((taps.size() + 3) / 4 * 4);
            ring.resize(taps.size());
            index = 1; // the first push() steps to 0
        }
        void push(float sample)
        {
            index = (index + ring.size() - 1) % ring.size();
            ring[index] = sample;
        }
        float dot(std::size_t steps) const
        {
            const std::size_t length = ring.size();
            const std::size_t at = (index + length - steps) % length;
            float lanes[4][4] = {};
            for (std::size_t m = 0; m < length; ++m)
            {
                float& lane = lanes[m < length / 16 * 16 ? m / 4 % 4 : 0][m % 4];
                lane += taps[(m + length - at) % length] * ring[m];
            }
            float s[4];
            for (int k = 0; k < 4; ++k)
                s[k] = (lanes[0][k] + lanes[1][k]) + (lanes[2][k] + lanes[3][k]);
            return ((s[0] + s[1]) + s[2]) + s[3];
        }
    };

    int m_ratio;
    SFir m_decimator, m_highPass;
    std::vector<SFir> m_interpolator;
    floats_t m_delay = floats_t(kDelayBufferSize), m_low = floats_t(4096);
    uint32_t m_delayIndex = 0;
};

TEST(HighRatePath, EqualsThePlainPathWhateverTheBlocks)
{
    std::mt19937 random = korvotest::makeRandom(121);
    constexpr uint32_t kChannels = 3, kChannel = 1, kMaxFrames = 300;
    for (const std::size_t row : {0U, 1U})
    {
        const uint32_t ratio = row == 0 ? 2 : 4;
        SChannel channel(row);
        CPlainChannel plain(row);
        // The low band starts with zeros in both paths: where a block is no multiple of the ratio, its stale
        // samples come out.
        floats_t buffers[3] = {floats_t(kMaxFrames * kChannels, 7.0F), floats_t(kMaxFrames * kChannels),
                               floats_t(kMaxFrames * kChannels, 7.0F)};
        const uint32_t delays[] = {0, 1, 250, 3, kMaxTotalDelay, 120};
        for (int round = 0; round < 60; ++round)
        {
            const uint32_t frames = random() % 4 == 0
                                        ? static_cast<uint32_t>(random() % kMaxFrames)
                                        : static_cast<uint32_t>(random() % (kMaxFrames / 4)) * ratio;
            const floats_t in = korvotest::makeNoise(random, frames);
            for (uint32_t f = 0; f < frames; ++f)
                buffers[0][f * kChannels + kChannel] = in[f];
            const SHighBand band{-0.5F, delays[round / 10]};
            const SHighRateBlock block{buffers[0].data(), buffers[1].data(), buffers[2].data(), frames,
                                       kChannel,          kChannels};
            processHighRate(channel.parts(), block, band, [&](uint32_t lowFrames) {
                ASSERT_EQ(lowFrames, frames / ratio);
                for (uint32_t m = 0; m < lowFrames; ++m)
                    buffers[1][m * kChannels + kChannel] *= 0.75F;
            });
            const floats_t expected = plain.process(in, band);
            for (uint32_t f = 0; f < frames; ++f)
                ASSERT_EQ(buffers[0][f * kChannels + kChannel], expected[f])
                    << "round " << round << " frame " << f;
            ASSERT_EQ(buffers[0][0], 7.0F) << "another channel was written";
            ASSERT_EQ(buffers[2][2], 7.0F) << "another channel was written";
        }
    }
}

TEST(HighRatePath, AnyMultipleOfTheRatioIsAsGoodAsTheWhole)
{
    std::mt19937 random = korvotest::makeRandom(122);
    for (const std::size_t row : {0U, 1U})
    {
        const uint32_t ratio = row == 0 ? 2 : 4;
        const floats_t in = korvotest::makeNoise(random, 4096);
        floats_t pieces = in, low(in.size()), high(in.size());
        SChannel channel(row);
        for (uint32_t done = 0; done < in.size();)
        {
            const uint32_t frames =
                std::min<uint32_t>(ratio * static_cast<uint32_t>(random() % 50), 4096 - done);
            processHighRate(channel.parts(), {pieces.data() + done, low.data(), high.data(), frames, 0, 1},
                            {1.0F, 0}, [](uint32_t) {});
            done += frames;
        }
        EXPECT_EQ(pieces, runMono(row, in)) << "row " << row;
    }
}

std::size_t peakOf(const floats_t& samples)
{
    const auto smaller = [](float a, float b) { return std::fabs(a) < std::fabs(b); };
    return static_cast<std::size_t>(std::max_element(samples.begin(), samples.end(), smaller) -
                                    samples.begin());
}

TEST(HighRatePath, BringsAnImpulseOutWhereItMust)
{
    floats_t impulse(400), high;
    EXPECT_EQ(runMono(0, impulse), impulse) << "silence";
    impulse[0] = 1.0F;
    floats_t low = runMono(0, impulse, &high);
    for (std::size_t i = 0; i < low.size(); ++i)
        low[i] -= high[i];
    EXPECT_EQ(peakOf(low), 41U);
    EXPECT_EQ(peakOf(high), 42U);
    runMono(1, impulse, &high);
    EXPECT_EQ(peakOf(high), 82U);
}

/// Level in dB of what comes out at the frequency of a tone that goes in, and the RMS of all that comes out
/// against that of the tone. `bin` is in units of rate / 4096.
std::pair<double, double> levelsOf(std::size_t row, int bin)
{
    constexpr std::size_t kWindow = 4096;
    floats_t in(2 * kWindow);
    for (std::size_t i = 0; i < in.size(); ++i)
        in[i] =
            static_cast<float>(0.5 * std::sin(2 * std::numbers::pi * bin * static_cast<double>(i) / kWindow));
    const floats_t out = runMono(row, in);
    std::complex<double> at = 0.0;
    double power = 0.0;
    for (std::size_t i = kWindow; i < in.size(); ++i)
    {
        at += std::polar(static_cast<double>(out[i]),
                         -2 * std::numbers::pi * bin * static_cast<double>(i) / kWindow);
        power += static_cast<double>(out[i]) * static_cast<double>(out[i]);
    }
    return {20 * std::log10(std::abs(at) / (kWindow * 0.25)), std::sqrt(power / kWindow / 0.125)};
}

TEST(HighRatePath, KeepsTheLevelOfATone)
{
    double deepest = 0.0, deepestAt = 0.0;
    for (int bin = 5; bin < 2048; bin += 17)
    {
        const double frequency = bin * 192000.0 / 4096;
        const double level = levelsOf(0, bin).first;
        EXPECT_LT(level, 0.05) << frequency << " Hz";
        EXPECT_GT(level, frequency <= 16000 || frequency >= 40000 ? -0.05 : -0.84) << frequency << " Hz";
        if (level < deepest)
        {
            deepest = level;
            deepestAt = frequency;
        }
    }
    EXPECT_NEAR(deepest, -0.83, 0.01); // the high band is one frame late
    EXPECT_NEAR(deepestAt, 27000, 1000);

    for (int bin = 5; bin < 2048; bin += 17)
        EXPECT_NEAR(levelsOf(1, bin).first, 0.0, 0.25) << bin * 384000.0 / 4096 << " Hz";
    EXPECT_NEAR(levelsOf(1, 53).second, 2.0, 0.02); // near 5 kHz, with the images
}

TEST(HighRatePath, KeepsTheDelayInsideItsBuffer)
{
    constexpr float kInf = std::numeric_limits<float>::infinity();
    const float nan = std::nanf("");
    struct
    {
        SHighBandSettings settings;
        uint32_t internalRate, ratio, totalDelay;
    } const rows[] = {
        {{1, 100, false, 0.5F, 7}, 96000, 2, 200}, // the host's delay is off
        {{1, 100, true, 0.5F, 1}, 96000, 2, 2 * 196},
        {{1, 100, true, 0.5F, 1}, 88200, 4, 4 * 188}, // 88, not 88.2
        {{1, 0, true, 1, 0.006F}, 96000, 2, 2},       // 0.576 + 0.5
        {{1, 0, true, 1, 0.005F}, 96000, 2, 0},
        {{1, 0, true, 1, -5}, 96000, 2, 0},
        {{1, 500, true, 1, 100}, 96000, 4, 39999},
        {{1, 0xFFFFFFFF, false, 1, 0}, 96000, 2, 39999},
        {{1, 0, true, 1, nan}, 96000, 2, 0},
        {{1, 0, true, 1, kInf}, 96000, 4, 39999},
        {{1, 0, true, 1, -kInf}, 96000, 4, 0},
        {{1, 0, true, 1, 1e30F}, 88200, 2, 39999},
    };
    for (const auto& row : rows)
        EXPECT_EQ(highBandFor(row.settings, row.internalRate, row.ratio).totalDelay, row.totalDelay)
            << row.settings.channelDelay;
    EXPECT_EQ(highBandFor({-2.0F, 0, true, 0.25F, 0}, 96000, 2).gain, -0.5F);
    EXPECT_EQ(highBandFor({-2.0F, 0, false, 0.25F, 0}, 96000, 2).gain, -2.0F);
    EXPECT_TRUE(std::isnan(highBandFor({1, 0, true, nan, 0}, 96000, 2).gain));
}

} // namespace
