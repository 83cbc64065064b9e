// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/target_curve.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <memory>
#include <new>

#include "toolbox/allocator.h"
#include "toolbox/truncate.h"

namespace korvotoolbox {

namespace {

constexpr int kSettings = 8;
constexpr std::size_t kMaxPoints = (INT_MAX - kSettings) / 2;

int toInt(float value)
{
    return truncateToInt(static_cast<double>(value));
}

void readSettings(const float* array, targetParamS& target)
{
    target.valueB = array[0];
    target.valueA = array[1];
    target.valueC = array[2];
    target.valueD = array[3];
    target.countB = toInt(array[4]);
    target.countA = toInt(array[5]);
    target.flagB = toInt(array[6]) != 0;
    target.flagA = toInt(array[7]) != 0;
}

/// Points are copied first and taken over at the end, so that running out of memory leaves `target` as it
/// was.
void readTarget(const float* array, int length, targetParamS& target)
{
    std::vector<targetBreakPointS> points;
    points.reserve(target.breakPoints.size() + static_cast<std::size_t>(length - kSettings) / 2);
    points = target.breakPoints;
    for (int i = kSettings; i < length; i += 2)
        points.push_back({array[i], array[i + 1]});
    std::vector<targetBreakPointS> inner(points.begin() + 1, points.end() - 1);

    readSettings(array, target);
    target.breakPoints.swap(points);
    target.innerBreakPoints.swap(inner);
}

void writeTarget(const targetParamS& target, float* array)
{
    const float settings[kSettings] = {target.valueB,
                                       target.valueA,
                                       target.valueC,
                                       target.valueD,
                                       static_cast<float>(target.countB),
                                       static_cast<float>(target.countA),
                                       target.flagB ? 1.0F : 0.0F,
                                       target.flagA ? 1.0F : 0.0F};
    array = std::copy_n(settings, kSettings, array);
    for (const targetBreakPointS& point : target.breakPoints)
    {
        *array++ = point.frequency;
        *array++ = point.level;
    }
}

} // namespace

bool arrayToTargetStruct(const float* array, int length, targetParamS*& target)
{
    if (array == nullptr || length < 12 || length % 2 != 0)
        return false;
    try
    {
        if (target != nullptr)
        {
            readTarget(array, length, *target);
            return true;
        }
        auto made = std::make_unique<targetParamS>();
        readTarget(array, length, *made);
        target = made.release();
        return true;
    }
    catch (const std::bad_alloc&)
    {
        return false;
    }
}

bool targetStructToArray(float*& array, int& length, const targetParamS* target)
{
    if (target == nullptr || target->breakPoints.size() > kMaxPoints)
        return false;
    const int needed = kSettings + 2 * static_cast<int>(target->breakPoints.size());
    if (array == nullptr)
    {
        array = static_cast<float*>(dtb_alloc(static_cast<unsigned long>(needed) * sizeof(float)));
        if (array == nullptr)
            return false;
    }
    else if (length != needed)
        return false;
    length = needed;
    writeTarget(*target, array);
    return true;
}

bool isValidMicCalibrationData(std::vector<targetBreakPointS> points)
{
    const auto isBetween = [](float value, float low, float high) { return value >= low && value <= high; };
    if (points.size() < 8)
        return false;
    for (std::size_t i = 1; i < points.size(); ++i)
    {
        if (!(points[i].frequency > points[i - 1].frequency))
            return false;
    }
    if (!isBetween(points.front().frequency, 0.0F, 5000.0F) ||
        !isBetween(points.back().frequency, 10000.0F, 192000.0F))
        return false;
    // No level above 100 bounds the highest and the lowest at once, and lets no NaN through.
    return std::all_of(
               points.begin(), points.end(),
               [&](const targetBreakPointS& point) { return isBetween(point.level, -200.0F, 100.0F); }) &&
           std::any_of(points.begin(), points.end(),
                       [](const targetBreakPointS& point) { return point.level >= -100.0F; });
}

} // namespace korvotoolbox
