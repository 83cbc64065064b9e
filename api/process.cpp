// SPDX-License-Identifier: GPL-3.0-or-later
#include <cstring>

#include "api/instance.h"

namespace korvo::api {

namespace {

/// Handles that the engine has let go of in this call. They stay the filter set's; nothing here reads them.
using RetiredFilters = void * [PROCESSOR_INSTANCE_tag::kMaxChannels];

void readInput(PROCESSOR_INSTANCE_tag& instance, const void* input, unsigned samples)
{
    if (instance.inputConversion == nullptr)
        std::memcpy(instance.inputBuffer, input, samples * sizeof(float));
    else
        instance.inputConversion(input, instance.inputBuffer, samples);
}

void processDirect(PROCESSOR_INSTANCE_tag& instance, unsigned frames, unsigned c, unsigned channels,
                   void** retired)
{
    instance.engine->process(false, instance.inputBuffer, instance.inputBuffer, frames, c, channels, retired);
}

/// Without an active filter the engine passes the low band on as it is, with no channel gain or delay, and so
/// does this with the high band.
SHighBand highBandOf(const PROCESSOR_INSTANCE_tag& instance, unsigned c)
{
    if (instance.filterSet->getOperatingMode() == filter::CFIIRFilter::kModeNone)
        return {1.0F, 0};
    const korvodsp::CFilteringEngine& engine = *instance.engine;
    const auto highBand = instance.filterSet->getHighBand(instance.internalRate, c);
    return highBandFor({highBand.gain, highBand.delay, engine.isDelayAndGainEnabled(),
                        engine.getChannelGain(c), engine.getChannelDelay(c)},
                       instance.internalRate, instance.highPassFilters[c].ratio);
}

void processTwoBands(PROCESSOR_INSTANCE_tag& instance, unsigned frames, unsigned c, unsigned channels,
                     void** retired)
{
    const SHighRateBlock block = {
        instance.inputBuffer, instance.decimatedBuffer, instance.highBandBuffer, frames, c, channels};
    float* const lowBand = instance.decimatedBuffer;
    processHighRate(highRateChannel(instance, c), block, highBandOf(instance, c), [&](unsigned lowFrames) {
        instance.engine->process(false, lowBand, lowBand, lowFrames, c, channels, retired);
    });
}

int writeOutput(const PROCESSOR_INSTANCE_tag& instance, void* output, unsigned samples)
{
    if (instance.outputConversion == nullptr)
    {
        std::memcpy(output, instance.inputBuffer, samples * sizeof(float));
        return KRV_STATUS_OK;
    }
    return instance.outputConversion(instance.inputBuffer, output, samples) ? KRV_STATUS_CLIPPED
                                                                            : KRV_STATUS_OK;
}

} // namespace

} // namespace korvo::api

using namespace korvo;
using namespace korvo::api;

int krv_process(krv_handle handle, const void* input, void* output, uint32_t frames,
                uint32_t channels) noexcept
{
    if (!isValid(handle))
        return KRV_STATUS_BAD_HANDLE;
    if (input == nullptr || output == nullptr || frames > handle->maxFrames || channels > handle->channels)
        return KRV_STATUS_BAD_ARGUMENT;
    PROCESSOR_INSTANCE_tag& instance = *handle;
    readInput(instance, input, frames * channels);
    RetiredFilters retired = {};
    for (unsigned c = 0; c < channels; ++c)
    {
        if (isHighRate(instance.sampleRate))
            processTwoBands(instance, frames, c, channels, retired);
        else
            processDirect(instance, frames, c, channels, retired);
    }
    return writeOutput(instance, output, frames * channels);
}
