// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/target_curve.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <functional>
#include <memory>

#include "tests/support/random.h"
#include "tests/toolbox/fault_injection.h"
#include "toolbox/allocator.h"

using namespace korvotoolbox;

namespace {

std::unique_ptr<targetParamS> read(const std::vector<float>& flat)
{
    targetParamS* target = nullptr;
    EXPECT_TRUE(arrayToTargetStruct(flat.data(), static_cast<int>(flat.size()), target));
    return std::unique_ptr<targetParamS>(target);
}

std::vector<float> frequencies(const std::vector<targetBreakPointS>& points)
{
    std::vector<float> result;
    for (const auto& point : points)
        result.push_back(point.frequency);
    return result;
}

} // namespace

TEST(TargetCurve, ReadsEachValueToItsPlace)
{
    const auto target = read({1.5F, 2.5F, 3.5F, 4.5F, 5.9F, -6.9F, 0.9F, -1, 20, -1, 200, -2, 2000, -3});
    EXPECT_EQ(target->valueB, 1.5F);
    EXPECT_EQ(target->valueA, 2.5F);
    EXPECT_EQ(target->valueC, 3.5F);
    EXPECT_EQ(target->valueD, 4.5F);
    EXPECT_EQ(target->countB, 5);
    EXPECT_EQ(target->countA, -6);
    EXPECT_FALSE(target->flagB) << "0.9 is truncated";
    EXPECT_TRUE(target->flagA);
    EXPECT_EQ(frequencies(target->breakPoints), (std::vector<float>{20, 200, 2000}));
    EXPECT_EQ(frequencies(target->innerBreakPoints), (std::vector<float>{200}));
    EXPECT_EQ(target->breakPoints[2].level, -3.0F);

    const auto wild = read({0, 0, 0, 0, 1e30F, -1e30F, NAN, 1e30F, 1, 2, 3, 4});
    EXPECT_EQ(wild->countB, INT_MAX);
    EXPECT_EQ(wild->countA, INT_MIN);
    EXPECT_TRUE(wild->flagB && wild->flagA);
    EXPECT_TRUE(wild->innerBreakPoints.empty());
}

TEST(TargetCurve, AppendsToAStructureThatIsPassedIn)
{
    const std::vector<float> flat{0, 0, 0, 0, 0, 0, 0, 0, 100, 1, 200, 2, 300, 3};
    targetParamS target;
    target.breakPoints = {{10, 0}, {20, 0}};
    targetParamS* passed = &target;
    ASSERT_TRUE(arrayToTargetStruct(flat.data(), 12, passed));
    EXPECT_EQ(passed, &target);
    EXPECT_EQ(frequencies(target.breakPoints), (std::vector<float>{10, 20, 100, 200}));
    EXPECT_EQ(frequencies(target.innerBreakPoints), (std::vector<float>{20, 100}));

    targetParamS* none = nullptr;
    for (const int length : {10, 11, 13, 0, -2})
        EXPECT_FALSE(arrayToTargetStruct(flat.data(), length, none)) << length;
    EXPECT_FALSE(arrayToTargetStruct(nullptr, 12, none));
    EXPECT_EQ(none, nullptr);
}

TEST(TargetCurve, FlatFormComesBackAsItWas)
{
    auto random = korvotest::makeRandom(4301);
    for (const std::size_t points : {2U, 3U, 1000U})
    {
        auto flat = korvotest::makeNoise(random, 8 + 2 * points, 1000.0F);
        flat[4] = std::trunc(flat[4]);
        flat[5] = std::trunc(flat[5]);
        flat[6] = 1.0F;
        flat[7] = 0.0F;
        float* made = nullptr;
        int length = -1;
        ASSERT_TRUE(targetStructToArray(made, length, read(flat).get()));
        EXPECT_EQ(std::vector<float>(made, made + length), flat);
        dtb_free(made);
    }
}

TEST(TargetCurve, WritesOnlyAnArrayThatFits)
{
    targetParamS target;
    target.breakPoints = {{1, 2}, {3, 4}};
    const std::vector<float> before(14, 7.0F);
    auto values = before;
    float* array = values.data();
    for (int length : {11, 13, 14, 0, -12})
        EXPECT_FALSE(targetStructToArray(array, length, &target));
    int length = 12;
    EXPECT_FALSE(targetStructToArray(array, length, nullptr));
    EXPECT_EQ(values, before);
    EXPECT_TRUE(targetStructToArray(array, length, &target));
    EXPECT_EQ(values[11], 4.0F);
    EXPECT_EQ(values[12], 7.0F);

    const auto accounting = korvotest::readAccounting();
    const korvotest::CFaults faults(0);
    float* none = nullptr;
    EXPECT_FALSE(targetStructToArray(none, length, &target));
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(korvotest::readAccounting().current, accounting.current);
}

TEST(MicCalibration, HoldsEachRule)
{
    using Points = std::vector<targetBreakPointS>;
    const Points good{{20, 0}, {50, 1}, {100, 0}, {500, -1}, {1000, 0}, {5000, 2}, {10000, 3}, {20000, -6}};
    EXPECT_TRUE(isValidMicCalibrationData(good));
    EXPECT_FALSE(isValidMicCalibrationData({}));
    EXPECT_FALSE(isValidMicCalibrationData(Points(good.begin() + 1, good.end()))) << "7 points";

    struct SCase
    {
        std::size_t point;
        targetBreakPointS changed;
        bool valid;
    };
    const SCase cases[] = {{3, {100, 0}, false},    {3, {NAN, 0}, false},     {0, {0, 0}, true},
                           {0, {-1, 0}, false},     {7, {192000, 0}, true},   {7, {192001, 0}, false},
                           {4, {1000, -200}, true}, {4, {1000, -201}, false}, {4, {1000, 100}, true},
                           {4, {1000, 101}, false}, {4, {1000, NAN}, false}};
    for (const SCase& c : cases)
    {
        Points points = good;
        points[c.point] = c.changed;
        EXPECT_EQ(isValidMicCalibrationData(points), c.valid)
            << c.changed.frequency << ' ' << c.changed.level;
    }
    const auto changedAll = [&good](float factor, float offset, float level) {
        Points points = good;
        for (auto& point : points)
            point = {point.frequency * factor + offset, point.level + level};
        return isValidMicCalibrationData(points);
    };
    EXPECT_FALSE(changedAll(1, 4981, 0)) << "first above 5000 Hz";
    EXPECT_FALSE(changedAll(0.49F, 0, 0)) << "last below 10000 Hz";
    EXPECT_TRUE(changedAll(1, 0, -103)) << "highest at -100 dB";
    EXPECT_FALSE(changedAll(1, 0, -104));
}
