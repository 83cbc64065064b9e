// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/impulse_response.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <numbers>
#include <tuple>

#include "tests/support/random.h"
#include "tests/toolbox/fault_injection.h"
#include "toolbox/allocator.h"

namespace {

using namespace korvotoolbox;

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

/// A response in an array that the truncations may replace.
struct SResponse
{
    explicit SResponse(const std::vector<float>& samples)
        : data(static_cast<float*>(dtb_alloc(samples.size() * sizeof(float)))),
          length(static_cast<int>(samples.size()))
    {
        std::copy(samples.begin(), samples.end(), data);
    }
    ~SResponse() { dtb_free(data); }
    SResponse(const SResponse&) = delete;
    SResponse& operator=(const SResponse&) = delete;

    /// A cut or a filtered cut; gives the status. Nothing changes unless it is done, and then the array does.
    int truncate(bool filtered, float level, float margin, int rate = 48000)
    {
        float* const array = data;
        const int whole = length;
        const auto cut = filtered ? truncImpStartToLevelUsingFilteredCopy : truncImpStartToLevel;
        const int status = cut(data, length, level, margin, rate, removed);
        EXPECT_EQ(data == array, status != 0);
        EXPECT_EQ(length, status != 0 ? whole : whole - removed);
        EXPECT_TRUE(status == 0 || removed == -7);
        return status;
    }

    float* data;
    int length;
    int removed = -7;
};

/// Samples from where an impulse first reaches a fraction of its peak to the peak, after zero-phase filtering
/// at 400 and 20 Hz. A second-order Butterworth low-pass, squared, has the impulse response that kernel()
/// gives; the high-pass takes away what a low-pass at its cutoff lets through.
int leadOfFilteredImpulse(double level)
{
    const auto kernel = [](double cutoff, int sample) {
        const double x = std::numbers::sqrt2 * std::numbers::pi * cutoff * sample / 48000.0;
        return cutoff * std::exp(-x) * (std::cos(x) + std::sin(x));
    };
    int lead = 4000;
    while (std::abs(kernel(400.0, lead) - kernel(20.0, lead)) < level * (400.0 - 20.0))
        --lead;
    return lead;
}

TEST(ImpulseSearch, FindsLevelsInTheDocumentedRange)
{
    const std::vector<float> data{0.0F, -0.125F, 0.5F, 0.25F, -1.0F, 0.75F, 1.0F, 0.5F};
    constexpr std::array kSearches = {findIdxWhereAbsFirstExceedsLevel, findIdxWhereAbsLastExceedsLevel,
                                      findIdxWhereAbsFirstExceeds, findIdxWhereAbsLastExceeds};
    const struct
    {
        float level;
        int length, found[4];
    } cases[] = {{0.125F, 8, {1, 7, 1, 3}},    {0.25F, 8, {2, 7, 2, 3}},    {0.5F, 8, {2, 7, 2, 2}},
                 {0.75F, 8, {4, 6, 4, -1}},    {1.0F, 8, {4, 6, 4, -1}},    {1.001F, 8, {-1, -1, -1, -1}},
                 {0.0009F, 8, {1, 7, -1, -1}}, {0.001F, 8, {1, 7, 1, 3}},   {kNaN, 8, {-1, -1, -1, -1}},
                 {1.0F, 4, {-1, -1, 2, -1}},   {0.5F, 0, {-1, -1, -1, -1}}, {0.5F, -3, {-1, -1, -1, -1}}};
    for (std::size_t i = 0; i < 4; ++i)
    {
        for (const auto& c : cases)
            EXPECT_EQ(kSearches[i](data.data(), c.length, c.level), c.found[i]) << i << ' ' << c.level;
        EXPECT_EQ(kSearches[i](nullptr, 8, 0.5F), -1);
    }
    EXPECT_EQ(findIdxWhereAbsLastExceeds(data.data() + 4, 4, 0.001F), -1) << "the peak comes first";
}

TEST(ImpulseSearch, FindsTheStartByTwoThresholds)
{
    const std::tuple<std::vector<float>, int, const char*> cases[] = {
        {{1.0F, 0.5F, 0.0F}, 0, "the peak comes first"},
        {{0.0F, 0.0F, 0.02F, 0.03F, -0.08F, 1.0F}, 1, "last below 1% before 7%"},
        {{0.02F, 0.0699F, 0.0F, 0.5F, -1.0F}, 2, "7% is not yet reached below it"},
        {{0.0F, 0.01F, 0.5F, -1.0F}, 0, "1% is not below it"},
        {{0.02F, 0.02F, 0.5F, 1.0F}, 2, "nothing below 1%"},
        {{0.0F, 0.0F, 0.0F, 0.0F}, 0, "silence"},
        {{0.0F, 0.0F, 0.08F, 0.001F, -1.0F}, 1, "an early reflection above 7%"},
        {{kNaN, 1.0F, 0.0F, 0.0F}, 4, "a peak that is no number"},
    };
    for (const auto& [data, start, what] : cases)
        EXPECT_EQ(findIdxOfDataStart(data.data(), static_cast<int>(data.size())), start) << what;
    EXPECT_EQ(findIdxOfDataStart(nullptr, 4), -1);
}

TEST(ImpulseSearch, FindsZeroCrossingsOnBothSides)
{
    //                      0      1      2      3      4     5     6      7      8     9
    std::vector<float> data{0.5F, -0.2F, -1.0F, -0.4F, 0.1F, 1.0F, 0.3F, -0.3F, -0.9F, 0.2F, 0.0F, 0.0F};
    const std::tuple<int, int, bool, int, const char*> cases[] = {
        {10, 5, false, 7, "equal magnitudes: the one past the crossing"},
        {10, 5, true, 4, "the neighbour is closer to zero"},
        {10, 2, false, 4, "the one past the crossing is closer"},
        {10, 2, true, 1, "crossing on the first sample, neighbour closer"},
        {10, 8, false, 9, "crossing on the last sample"},
        {12, 10, false, 11, "zero crosses at once"},
        {7, 5, false, 6, "no crossing: the last sample"},
        {10, 0, false, 0, "index 0"},
        {10, 9, false, 9, "last index"},
        {10, 10, true, 10, "past the end"},
        {10, -1, true, -1, "negative"},
        {-10, 5, true, 5, "no length"},
    };
    for (const auto& [length, index, before, expected, what] : cases)
        EXPECT_EQ(findIdxOfZeroCrossingBeforeOrAfterIdx(data.data(), length, index, before), expected)
            << what;
    EXPECT_EQ(findIdxOfZeroCrossingBeforeOrAfterIdx(data.data() + 1, 3, 2, true), 0)
        << "no crossing: the first";
    EXPECT_EQ(findIdxOfZeroCrossingBeforeOrAfterIdx(nullptr, 10, 5, true), 5);
}

TEST(ImpulseTruncation, ChecksItsArgumentsAlikeInAllThree)
{
    const std::tuple<int, float, float, int, bool> cases[] = {
        {3, 0.5F, 0.0F, 48000, false},    {4, 0.5F, 0.0F, 48000, true},      {4, 0.0F, 0.0F, 48000, false},
        {4, 1.0F, 0.0F, 44100, true},     {4, 1.0001F, 0.0F, 48000, false},  {4, kNaN, 0.0F, 48000, false},
        {4, 0.5F, -0.001F, 48000, false}, {4, 0.5F, 0.0F, 32000, false},     {4, 0.5F, 0.0F, 96000, true},
        {4, 0.0005F, 0.0F, 88200, true},  {4, 0.5F, kInfinity, 48000, true}, {4, 0.5F, kNaN, 48000, true},
        {-1, 0.5F, 0.0F, 48000, false},   {4, 0.5F, 1e30F, 48000, true},
    };
    for (const auto& [length, level, margin, rate, valid] : cases)
    {
        const std::vector<float> samples{1.0F, 0.5F, 0.25F, 0.125F};
        for (const bool filtered : {false, true})
        {
            SResponse response(samples);
            response.length = length;
            const int refused = filtered ? 160 : 157;
            EXPECT_EQ(response.truncate(filtered, level, margin, rate), valid ? 0 : refused);
            EXPECT_TRUE(std::equal(samples.begin(), samples.end(), response.data));
        }
        std::vector<float> shifted = samples;
        EXPECT_EQ(shiftImpStartToLevel(shifted.data(), length, level, margin, rate), valid);
        EXPECT_EQ(shifted, samples);
    }
    EXPECT_FALSE(shiftImpStartToLevel(nullptr, 4, 0.5F, 0.0F, 48000));
}

TEST(ImpulseTruncation, CutsAtTheStartAndPaddingGivesTheResponseBack)
{
    // Before the impulse at 4000 there is a burst at 12 kHz of more than half its height.
    std::mt19937 random = korvotest::makeRandom(4201);
    std::vector<float> samples = korvotest::makeNoise(random, 9600, 1e-5F);
    for (std::size_t i = 1000; i < 1200; ++i)
        samples[i] += 0.6F * ((i + 1) % 4 < 2 ? 1.0F : -1.0F);
    samples[4000] += 1.0F;
    for (const auto& [filtered, level] :
         {std::pair{false, 0.5F}, {false, 1.0F}, {true, 1.0F}, {true, 0.5F}, {true, 0.2F}, {true, 0.07F}})
    {
        const auto allocated = korvotest::readAccounting().current;
        SResponse cut(samples);
        ASSERT_EQ(cut.truncate(filtered, level, 2.0F), 0);
        const int start = filtered ? 4000 - 96 - leadOfFilteredImpulse(static_cast<double>(level)) : 999;
        EXPECT_NEAR(cut.removed, start, filtered ? 4 : 0) << level;
        EXPECT_EQ(korvotest::readAccounting().current - allocated,
                  sizeof(float) * static_cast<unsigned>(cut.length));
        std::vector<float> padded(samples.begin(), samples.begin() + cut.removed);
        padded.insert(padded.end(), cut.data, cut.data + cut.length);
        EXPECT_EQ(padded, samples) << "what stays is not filtered";
    }
    // A response that breaks off: where the same filters have its start in double precision, each pass
    // beginning at rest.
    SResponse broken(std::vector<float>(2000, 1.0F));
    ASSERT_EQ(broken.truncate(true, 0.5F, 0.0F), 0);
    EXPECT_NEAR(broken.removed, 41, 1);
    for (const auto& [level, shift] : {std::pair{0.5F, 1000 - 96}, {0.7F, 4000 - 96}})
    {
        std::vector<float> shifted = samples;
        EXPECT_TRUE(shiftImpStartToLevel(shifted.data(), 9600, level, 2.0F, 48000));
        std::vector<float> expected(samples.begin() + shift, samples.end());
        expected.resize(9600, 0.0F);
        EXPECT_EQ(shifted, expected) << level;
    }
}

TEST(ImpulseTruncation, LeavesEverythingAsItWasWhenItFails)
{
    const struct
    {
        bool filtered;
        float first;         ///< sample
        int allocationsLeft; ///< of the toolbox; a filtered truncation needs two
        int newsLeft;        ///< of biquads; it needs two
        int status;
    } cases[] = {{false, kNaN, 9, 9, 158}, {false, 0.0F, 0, 9, 159}, {true, 0.0F, 9, 0, 161},
                 {true, 0.0F, 9, 1, 161},  {true, 0.0F, 0, 9, 163},  {true, 0.0F, 1, 9, 163}};
    for (const auto& c : cases)
    {
        SResponse response({c.first, 0.0F, 1.0F, 0.0F});
        const auto allocated = korvotest::readAccounting().current;
        {
            const korvotest::CFaults failing(c.allocationsLeft, false, c.newsLeft);
            EXPECT_EQ(response.truncate(c.filtered, 0.5F, 0.0F), c.status);
        }
        EXPECT_EQ(korvotest::readAccounting().current, allocated) << c.status;
    }
}

/// `samples` with zeros from `begin` up to, and without, `end`.
std::vector<float> zeroed(std::vector<float> samples, int begin, int end)
{
    std::fill(samples.begin() + begin, samples.begin() + end, 0.0F);
    return samples;
}

TEST(ImpulseEditing, ShiftsWithZeroFill)
{
    const std::vector<float> samples{1.0F, 2.0F, 3.0F, 4.0F, 5.0F};
    for (int shift = -7; shift <= 7; ++shift)
    {
        std::vector<float> data = samples, expected(15, 0.0F);
        EXPECT_EQ(shiftArray(data.data(), 5, shift), std::abs(shift) < 5);
        std::copy(samples.begin(), samples.end(), expected.begin() + 5 + (std::abs(shift) < 5 ? shift : 0));
        EXPECT_TRUE(std::equal(data.begin(), data.end(), expected.begin() + 5)) << shift;
    }
    float one = 1.0F;
    EXPECT_FALSE(shiftArray(&one, 1, 0));
    EXPECT_FALSE(shiftArray(nullptr, 5, 1));
    EXPECT_FALSE(shiftArray(&one, 1, std::numeric_limits<int>::min()));
}

TEST(ImpulseEditing, ZeroesRegionsWithAnExclusiveEnd)
{
    constexpr int kMax = std::numeric_limits<int>::max();
    const std::tuple<int, int, int, int> cases[] = {
        {5, 0, 0, 0},  {5, 2, 3, 7},    {1, 3, 0, 4},    {9, 2, 7, 10},       {12, 3, 9, 10},
        {-2, 3, 0, 1}, {20, 4, 0, 0},   {-20, 4, 0, 0},  {5, 4, 1, 9},        {5, 5, 0, 0},
        {5, -3, 0, 0}, {5, kMax, 0, 0}, {kMax, 4, 0, 0}, {-kMax - 1, 4, 0, 0}};
    for (const auto& [centre, halfWidth, begin, end] : cases)
    {
        std::vector<float> data(10, 1.0F);
        setRegionToZero(centre, halfWidth, data.data(), 10);
        EXPECT_EQ(data, zeroed(std::vector<float>(10, 1.0F), begin, end)) << centre << " +- " << halfWidth;
    }
}

TEST(ImpulseEditing, ZeroesTheLobeAroundAnIndex)
{
    const std::vector<float> samples{1.0F, 2.0F, -1.0F, -2.0F, 0.0F, 3.0F, 4.0F, 0.0F, 5.0F};
    // From the zero at 4 the negative lobe before it goes, from the zero at 7 the positive one does not.
    for (const auto& [index, begin, end] :
         {std::tuple{0, 0, 2}, {1, 0, 2}, {2, 2, 4}, {4, 2, 4}, {6, 5, 7}, {7, 0, 0}, {8, 8, 9}})
    {
        std::vector<float> data = samples;
        zeroBetweenZeroCrossings(data.data(), 9, index);
        EXPECT_EQ(data, zeroed(samples, begin, end)) << index;
    }
}

} // namespace
