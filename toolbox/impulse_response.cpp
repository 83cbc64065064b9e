// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/impulse_response.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <memory>

#include "dsp/biquad.h"
#include "toolbox/allocator.h"
#include "toolbox/helpers.h"
#include "toolbox/truncate.h"

namespace korvotoolbox {

namespace {

constexpr float kLeastLevel = 0.001F;

struct SBlockRelease
{
    void operator()(float* block) const { dtb_free(block); }
};
using Block = std::unique_ptr<float, SBlockRelease>;

struct SBiquadRelease
{
    void operator()(void* handle) const { korvodsp::BQ_Discard(handle); }
};
using Biquad = std::unique_ptr<void, SBiquadRelease>;

Biquad makeBiquad()
{
    void* handle = nullptr;
    korvodsp::BQ_Init(&handle);
    return Biquad(handle);
}

/// A copy of `count` samples; null if memory is out.
Block copySamples(const float* samples, int count)
{
    const auto size = static_cast<unsigned long>(count);
    Block copy(static_cast<float*>(dtb_alloc(size * sizeof(float))));
    if (copy != nullptr)
        std::copy_n(samples, size, copy.get());
    return copy;
}

/// First of `count` samples with a magnitude of at least `level`; -1 if there is none.
int firstAtOrAbove(const float* data, int count, float level)
{
    const float* end = data + count;
    const float* hit = std::find_if(data, end, [level](float x) { return std::fabs(x) >= level; });
    return hit == end ? -1 : static_cast<int>(hit - data);
}

/// Last of `count` samples with a magnitude of at least `level`; -1 if there is none.
int lastAtOrAbove(const float* data, int count, float level)
{
    int i = count - 1;
    while (i >= 0 && !(std::fabs(data[i]) >= level))
        --i;
    return i;
}

/// Index of the peak, or -1 for arguments without a level rule.
int peakForLevel(const float* data, int length, float level)
{
    if (level < kLeastLevel || level > 1.0F)
        return -1;
    return maxAbsIdx(data, length);
}

/// The check that the three level-based functions have in common.
bool isValidRequest(const float* data, int length, float level, float margin, int rate)
{
    return data != nullptr && length >= 4 && level > 0.0F && level <= 1.0F && !(margin < 0.0F) &&
           fsIsSupported(rate);
}

/// The level rule with a margin in front, at least 0.
int startWithMargin(const float* data, int length, float level, float margin, int rate)
{
    const int index = findIdxWhereAbsFirstExceeds(data, length, level);
    const int samples =
        truncateToInt(static_cast<double>(margin / 1000.0F * static_cast<float>(rate) + 0.5F));
    // Below 0 only for a margin of NaN, which counts as endless.
    return std::max(0, index - (samples < 0 ? INT_MAX : samples));
}

enum class ECut
{
    Done,
    OutsideArray,
    OutOfMemory
};

/// Replaces a response by what it holds from `start` on.
ECut cutFront(float*& data, int& length, int start, int& removed)
{
    if (start < 0 || start >= length)
        return ECut::OutsideArray;
    Block rest = copySamples(data + start, length - start);
    if (rest == nullptr)
        return ECut::OutOfMemory;
    dtb_free(data);
    data = rest.release();
    length -= start;
    removed = start;
    return ECut::Done;
}

void filterWithoutPhase(void* section, float* data, int length)
{
    const auto count = static_cast<unsigned>(length);
    korvodsp::BQ_Process(section, data, count);
    korvodsp::BQ_Reset(section);
    korvodsp::BQ_ProcessBackwards(section, data, count);
}

} // namespace

int findIdxWhereAbsFirstExceedsLevel(const float* data, int length, float level)
{
    return data == nullptr || length < 1 ? -1 : firstAtOrAbove(data, length, level);
}

int findIdxWhereAbsLastExceedsLevel(const float* data, int length, float level)
{
    return data == nullptr || length < 1 ? -1 : lastAtOrAbove(data, length, level);
}

int findIdxWhereAbsFirstExceeds(const float* data, int length, float level)
{
    const int peak = peakForLevel(data, length, level);
    return peak < 0 ? -1 : firstAtOrAbove(data, peak + 1, std::fabs(data[peak]) * level);
}

int findIdxWhereAbsLastExceeds(const float* data, int length, float level)
{
    // "Last" before the peak: neither the peak nor what follows it is searched.
    const int peak = peakForLevel(data, length, level);
    return peak < 0 ? -1 : lastAtOrAbove(data, peak, std::fabs(data[peak]) * level);
}

int findIdxOfDataStart(const float* data, int length)
{
    const int peak = maxAbsIdx(data, length);
    if (peak < 0)
        return -1;
    const auto magnitude = static_cast<double>(std::fabs(data[peak]));
    const auto low = static_cast<float>(0.01 * magnitude);
    const int onset = firstAtOrAbove(data, length, static_cast<float>(0.07 * magnitude));
    if (onset < 0)
        return length;
    for (int i = onset - 1; i >= 0; --i)
    {
        if (std::fabs(data[i]) < low)
            return i;
    }
    return onset;
}

int findIdxOfZeroCrossingBeforeOrAfterIdx(float* data, int length, int index, bool before)
{
    if (data == nullptr || index < 1 || index > length - 1 || (!before && index == length - 1))
        return index;
    const int step = before ? -1 : 1;
    const int limit = before ? 0 : length - 1;
    const bool fromAbove = data[index] > 0.0F;
    for (int j = index + step;; j += step)
    {
        if (fromAbove ? data[j] <= 0.0F : data[j] >= 0.0F)
            return std::fabs(data[j]) > std::fabs(data[j - step]) ? j - step : j;
        if (j == limit)
            return j;
    }
}

int truncImpStartToLevel(float*& data, int& length, float level, float margin, int rate, int& removed)
{
    if (!isValidRequest(data, length, level, margin, rate))
        return 157;
    // The level and the margin have no say here: the two thresholds of the start are fixed.
    switch (cutFront(data, length, findIdxOfDataStart(data, length), removed))
    {
    case ECut::OutsideArray:
        return 158;
    case ECut::OutOfMemory:
        return 159;
    case ECut::Done:
        break;
    }
    return 0;
}

int truncImpStartToLevelUsingFilteredCopy(float*& data, int& length, float level, float margin, int rate,
                                          int& removed)
{
    if (!isValidRequest(data, length, level, margin, rate))
        return 160;
    const Block copy = copySamples(data, length);
    if (copy == nullptr)
        return 163;
    const Biquad loPass = makeBiquad();
    const Biquad hiPass = makeBiquad();
    if (loPass == nullptr || hiPass == nullptr)
        return 161;
    korvodsp::BQ_MakeLoPass(loPass.get(), static_cast<float>(rate), 400.0F, 0.7F);
    korvodsp::BQ_MakeHiPass(hiPass.get(), static_cast<float>(rate), 20.0F, 0.7F);
    filterWithoutPhase(loPass.get(), copy.get(), length);
    filterWithoutPhase(hiPass.get(), copy.get(), length);
    switch (cutFront(data, length, startWithMargin(copy.get(), length, level, margin, rate), removed))
    {
    case ECut::OutsideArray:
        return 162;
    case ECut::OutOfMemory:
        return 163;
    case ECut::Done:
        break;
    }
    return 0;
}

bool shiftImpStartToLevel(float* data, int length, float level, float margin, int rate)
{
    if (!isValidRequest(data, length, level, margin, rate))
        return false;
    return shiftArray(data, length, -startWithMargin(data, length, level, margin, rate));
}

bool shiftArray(float* data, int length, int shift)
{
    if (data == nullptr || length <= 1 || shift >= length || shift <= -length)
        return false;
    if (shift > 0)
    {
        std::move_backward(data, data + (length - shift), data + length);
        std::fill_n(data, shift, 0.0F);
    }
    else if (shift < 0)
    {
        std::move(data - shift, data + length, data);
        std::fill_n(data + (length + shift), -shift, 0.0F);
    }
    return true;
}

void setRegionToZero(int centre, int halfWidth, float* data, int length)
{
    if (data == nullptr || 2LL * halfWidth + 1 > length)
        return;
    // The end is exclusive: one sample less than the test above counts.
    const long long begin = std::max(0LL, static_cast<long long>(centre) - halfWidth);
    const long long end = std::min<long long>(length, static_cast<long long>(centre) + halfWidth);
    for (long long i = begin; i < end; ++i)
        data[i] = 0.0F;
}

void zeroBetweenZeroCrossings(float* data, int length, int index)
{
    const bool positive = data[index] > 0.0F;
    const auto inLobe = [positive](float x) { return positive ? x > 0.0F : x < 0.0F; };
    for (int i = index; i < length && inLobe(data[i]); ++i)
        data[i] = 0.0F;
    // At a sample of exactly 0 the upward pass ends at once, and this one still clears a negative lobe before
    // it.
    for (int i = index - 1; i >= 0 && inLobe(data[i]); --i)
        data[i] = 0.0F;
}

} // namespace korvotoolbox
