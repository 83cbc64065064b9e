// SPDX-License-Identifier: GPL-3.0-or-later
#include "api/instance.h"

#include <cstdlib>
#include <iterator>

#include "dsp/sample_conversion.h"

namespace korvo::api {

namespace {

struct SFormat
{
    PROCESSOR_INSTANCE_tag::InputConversion toFloat;
    PROCESSOR_INSTANCE_tag::OutputConversion fromFloat;
};

/// By KRV_FORMAT_... minus 1.
constexpr SFormat kFormats[] = {
    {korvodsp::NativeInt16ToFloat32_X86, korvodsp::Float32ToNativeInt16_X86},
    {korvodsp::NativeInt20ToFloat32_X86, korvodsp::Float32ToNativeInt20_X86},
    {korvodsp::NativeInt24ToFloat32_X86, korvodsp::Float32ToNativeInt24_X86},
    {korvodsp::NativeInt32ToFloat32_X86, korvodsp::Float32ToNativeInt32_X86},
    {nullptr, nullptr},
};

bool isWithin(std::int32_t value, std::int32_t lowest, std::int32_t highest)
{
    return value >= lowest && value <= highest;
}

float* allocateBlock(std::int32_t channels, std::int32_t frames)
{
    return static_cast<float*>(krv_malloc(channels * frames * static_cast<std::int32_t>(sizeof(float)), 16));
}

bool allocateBlocks(PROCESSOR_INSTANCE_tag& instance, std::int32_t channels, std::int32_t frames)
{
    for (float** block : {&instance.inputBuffer, &instance.decimatedBuffer, &instance.highBandBuffer})
    {
        *block = allocateBlock(channels, frames);
        if (*block == nullptr)
            return false;
    }
    return true;
}

/// Readies all channels for 176400 and 192000 Hz, whatever the channel count.
bool prepareMultirate(PROCESSOR_INSTANCE_tag& instance)
{
    for (unsigned c = 0; c < PROCESSOR_INSTANCE_tag::kMaxChannels; ++c)
    {
        instance.delayBuffers[c] = static_cast<float*>(std::calloc(kDelayBufferSize, sizeof(float)));
        if (instance.delayBuffers[c] == nullptr || !prepareChannel(highRateChannel(instance, c), 0))
            return false;
    }
    return true;
}

bool build(PROCESSOR_INSTANCE_tag& instance, std::int32_t channels, std::int32_t frames)
{
    if (!allocateBlocks(instance, channels, frames))
        return false;
    instance.channels = static_cast<std::uint32_t>(channels);
    instance.maxFrames = static_cast<std::uint32_t>(frames);
    instance.engine = new korvodsp::CFilteringEngine(instance.channels);
    instance.engine->initFilters(kStandardRates, static_cast<unsigned>(std::size(kStandardRates)));
    instance.filterSet = new korvo::filter::CFIIRFilter(*instance.engine);
    for (unsigned c = 0; c < PROCESSOR_INSTANCE_tag::kMaxChannels; ++c)
        instance.channelMasks[c] = 1U << c;
    return prepareMultirate(instance);
}

} // namespace

} // namespace korvo::api

using namespace korvo;
using namespace korvo::api;

int krv_create(krv_handle* handleOut, int32_t channels, int32_t blockFrames, int32_t inputFormat,
               int32_t outputFormat) noexcept
{
    if (handleOut == nullptr || !isWithin(channels, KRV_MIN_CHANNELS, KRV_MAX_CHANNELS) ||
        !isWithin(blockFrames, KRV_MIN_BLOCK_FRAMES, KRV_MAX_BLOCK_FRAMES) ||
        !isWithin(inputFormat, KRV_FORMAT_INT16, KRV_FORMAT_FLOAT32) ||
        !isWithin(outputFormat, KRV_FORMAT_INT16, KRV_FORMAT_FLOAT32))
        return KRV_STATUS_BAD_ARGUMENT;
    return guarded(KRV_STATUS_OUT_OF_MEMORY, [&] {
        auto* instance = static_cast<krv_handle>(std::calloc(1, sizeof(PROCESSOR_INSTANCE_tag)));
        if (instance == nullptr)
            return KRV_STATUS_OUT_OF_MEMORY;
        instance->inputConversion = kFormats[inputFormat - 1].toFloat;
        instance->outputConversion = kFormats[outputFormat - 1].fromFloat;
        // A half-built record is left as it is: memory is out anyway, and nobody has a handle to it.
        if (!build(*instance, channels, blockFrames))
            return KRV_STATUS_OUT_OF_MEMORY;
        instance->validityMark = PROCESSOR_INSTANCE_tag::kValidityMark;
        *handleOut = instance;
        return KRV_STATUS_OK;
    });
}

int krv_destroy(krv_handle handle) noexcept
{
    if (!isValid(handle))
        return KRV_STATUS_BAD_HANDLE;
    delete handle->filterSet; // takes its filters out of the engine, which therefore goes after it
    handle->filterSet = nullptr;
    delete handle->engine;
    handle->engine = nullptr;
    korvo::filter::freeFilterList(handle->filterList);
    krv_free(handle->inputBuffer);
    krv_free(handle->highBandBuffer);
    krv_free(handle->decimatedBuffer);
    for (unsigned c = 0; c < PROCESSOR_INSTANCE_tag::kMaxChannels; ++c)
    {
        std::free(handle->delayBuffers[c]);
        releaseFIRcoefs(&handle->highPassFilters[c]);
        releaseFIRcoefs(&handle->decimators[c]);
        releaseFIRcoefs(&handle->interpolators[c]);
    }
    std::free(handle);
    return KRV_STATUS_OK;
}
