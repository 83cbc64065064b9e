// SPDX-License-Identifier: GPL-3.0-or-later
#include "api/instance.h"

namespace korvo::api {

namespace {

constexpr unsigned kHighestDirectRate = 96000;

void initEngine(PROCESSOR_INSTANCE_tag& instance, unsigned rate)
{
    const auto maxDelay = static_cast<unsigned>(static_cast<double>(rate) * 0.1 + 0.5); // 100 ms
    instance.engine->init(rate, instance.maxFrames, instance.channels, maxDelay);
}

/// All channels, whatever the channel count.
void prepareHighRate(PROCESSOR_INSTANCE_tag& instance, std::size_t row)
{
    for (unsigned c = 0; c < PROCESSOR_INSTANCE_tag::kMaxChannels; ++c)
        prepareChannel(highRateChannel(instance, c), row);
}

} // namespace

} // namespace korvo::api

using namespace korvo;
using namespace korvo::api;

int krv_setSamplerate(krv_handle handle, uint32_t rate) noexcept
{
    if (!isValid(handle))
        return KRV_STATUS_BAD_HANDLE;
    if (handle->filterSet == nullptr)
        return KRV_STATUS_NO_FILTER_SET;
    return guarded(KRV_STATUS_RATE_NOT_SUPPORTED, [&] {
        if (!handle->filterSet->supportsSampleRate(rate))
            return KRV_STATUS_RATE_NOT_SUPPORTED;
        if (rate <= kHighestDirectRate)
        {
            initEngine(*handle, rate);
            handle->sampleRate = rate;
            return KRV_STATUS_OK;
        }
        if (!isHighRate(rate))
            return KRV_STATUS_RATE_NOT_SUPPORTED;
        const unsigned base = baseRateOf(rate);
        initEngine(*handle, base);
        handle->internalRate = base;
        prepareHighRate(*handle, resamplingRowOf(rate));
        // Asked late, and nothing of the above undone: the host is told to set a rate that works.
        if (!handle->filterSet->supportsSampleRate(base))
            return KRV_STATUS_RATE_NOT_SUPPORTED;
        handle->sampleRate = rate;
        return KRV_STATUS_OK;
    });
}
