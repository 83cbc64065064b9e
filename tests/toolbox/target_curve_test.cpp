// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/target_curve.h"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <memory>
#include <tuple>

#include "tests/toolbox/fault_injection.h"
#include "toolbox/allocator.h"

using namespace korvotoolbox;

TEST(TargetCurve, TakesEachValueToItsPlaceAndBack)
{
    using floats_t = std::vector<float>;
    const auto write = [](const targetParamS& target) {
        float* made = nullptr;
        int length = -1;
        EXPECT_TRUE(targetStructToArray(made, length, &target));
        const std::unique_ptr<float, decltype(&dtb_free)> owner(made, dtb_free);
        return floats_t(made, made + length);
    };
    const floats_t flat{1.5F, 2.5F, 3.5F, 4.5F, 5.9F, -6.9F, 0.9F, -1, 20, -1, 200, -2, 2000, -3};
    targetParamS* target = nullptr;
    ASSERT_TRUE(arrayToTargetStruct(flat.data(), 14, target));
    const std::unique_ptr<targetParamS> owner(target);
    EXPECT_TRUE(target->valueB == 1.5F && target->valueA == 2.5F);
    EXPECT_TRUE(target->valueC == 3.5F && target->valueD == 4.5F);
    EXPECT_TRUE(target->countB == 5 && target->countA == -6);
    EXPECT_TRUE(!target->flagB && target->flagA) << "0.9 is truncated";
    ASSERT_EQ(target->innerBreakPoints.size(), 1U);
    EXPECT_EQ(target->innerBreakPoints[0].frequency, 200.0F);
    EXPECT_EQ(write(*target), (floats_t{1.5F, 2.5F, 3.5F, 4.5F, 5, -6, 0, 1, 20, -1, 200, -2, 2000, -3}));

    // A structure that is passed in keeps the points that it has.
    const floats_t wild{0, 0, 0, 0, 1e30F, -1e30F, NAN, 1e30F, 1, 2, 3, 4};
    ASSERT_TRUE(arrayToTargetStruct(wild.data(), 12, target));
    EXPECT_EQ(target, owner.get());
    EXPECT_TRUE(target->countB == INT_MAX && target->countA == INT_MIN);
    EXPECT_EQ(write(*target),
              (floats_t{0, 0, 0, 0, 0x1p31F, -0x1p31F, 1, 1, 20, -1, 200, -2, 2000, -3, 1, 2, 3, 4}));
    ASSERT_EQ(target->innerBreakPoints.size(), 3U);
    EXPECT_EQ(target->innerBreakPoints[2].frequency, 1.0F);
}

TEST(TargetCurve, ReadsAndWritesOnlyArraysThatFit)
{
    std::vector<float> values(14, 7.0F);
    float* array = values.data();
    targetParamS* none = nullptr;
    for (const int length : {10, 11, 13, 0, -2})
        EXPECT_FALSE(arrayToTargetStruct(array, length, none)) << length;
    EXPECT_FALSE(arrayToTargetStruct(nullptr, 12, none));
    EXPECT_EQ(none, nullptr);

    targetParamS target;
    target.breakPoints = {{1, 2}, {3, 4}};
    for (int length : {11, 13, 14, 0, -12})
        EXPECT_FALSE(targetStructToArray(array, length, &target));
    int length = 12;
    EXPECT_FALSE(targetStructToArray(array, length, nullptr));
    EXPECT_EQ(values, std::vector<float>(14, 7.0F));
    EXPECT_TRUE(targetStructToArray(array, length, &target));
    EXPECT_EQ(values, (std::vector<float>{0, 0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 4, 7, 7}));

    const auto accounting = korvotest::readAccounting();
    const korvotest::CFaults faults(0);
    float* unmade = nullptr;
    EXPECT_FALSE(targetStructToArray(unmade, length, &target));
    EXPECT_EQ(unmade, nullptr);
    EXPECT_EQ(korvotest::readAccounting().current, accounting.current);
}

TEST(MicCalibration, HoldsEachRule)
{
    using Points = std::vector<targetBreakPointS>;
    const Points good{{100, -150},  {5500, -150}, {6000, 0},    {7000, -150},
                      {8000, -150}, {9000, -150}, {9500, -150}, {20000, -150}};
    EXPECT_TRUE(isValidMicCalibrationData(good));
    EXPECT_FALSE(isValidMicCalibrationData({}));
    EXPECT_FALSE(isValidMicCalibrationData({good[0], good[2], good[3], good[4], good[5], good[6], good[7]}));

    const std::tuple<std::size_t, targetBreakPointS, bool> cases[] = {
        {0, {0, 0}, true},      {0, {-1, 0}, false},     {0, {5000, 0}, true},    {0, {5001, 0}, false},
        {7, {10000, 0}, true},  {7, {9999, 0}, false},   {7, {192000, 0}, true},  {7, {192001, 0}, false},
        {3, {6000, 0}, false},  {3, {NAN, 0}, false},    {2, {6000, -100}, true}, {2, {6000, -101}, false},
        {2, {6000, 100}, true}, {2, {6000, 101}, false}, {3, {7000, -200}, true}, {3, {7000, -201}, false},
        {3, {7000, NAN}, false}};
    for (const auto& [point, changed, valid] : cases)
    {
        Points points = good;
        points[point] = changed;
        EXPECT_EQ(isValidMicCalibrationData(points), valid) << changed.frequency << ' ' << changed.level;
    }
}
