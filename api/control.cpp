// SPDX-License-Identifier: GPL-3.0-or-later
#include "api/instance.h"

namespace korvo::api {

namespace {

/// An index equal to the channel count is refused too: the engine has no such channel.
bool hasChannel(krv_handle handle, std::uint32_t channel)
{
    return channel < handle->channels;
}

/// Writes `value` to `*result`, with the tests that all getters of engine values share.
template<typename T, typename Getter>
int read(krv_handle handle, T* result, Getter&& value) noexcept
{
    if (!isValid(handle))
        return KRV_STATUS_BAD_HANDLE;
    if (result == nullptr)
        return KRV_STATUS_BAD_ARGUMENT;
    *result = static_cast<T>(value(*handle->engine));
    return KRV_STATUS_OK;
}

} // namespace

} // namespace korvo::api

using namespace korvo::api;
using korvodsp::CFilteringEngine;

int krv_enable(krv_handle handle, int32_t on) noexcept
{
    if (!isValid(handle))
        return KRV_STATUS_BAD_HANDLE;
    handle->engine->enable(on != 0);
    return KRV_STATUS_OK;
}

int krv_isEnabled(krv_handle handle, int32_t* result) noexcept
{
    return read(handle, result, [](const CFilteringEngine& engine) { return engine.isEnabled(); });
}

int krv_enableDelayAndGain(krv_handle handle, int32_t on) noexcept
{
    if (!isValid(handle))
        return KRV_STATUS_BAD_HANDLE;
    handle->engine->enableDelayAndGain(on != 0);
    return KRV_STATUS_OK;
}

int krv_isDelayAndGainEnabled(krv_handle handle, int32_t* result) noexcept
{
    return read(handle, result,
                [](const CFilteringEngine& engine) { return engine.isDelayAndGainEnabled(); });
}

int krv_setChannelGain(krv_handle handle, uint32_t channel, float gain) noexcept
{
    if (!isValid(handle))
        return KRV_STATUS_BAD_HANDLE;
    if (!hasChannel(handle, channel))
        return KRV_STATUS_BAD_ARGUMENT;
    handle->engine->setChannelGain(channel, gain);
    return KRV_STATUS_OK;
}

int krv_getChannelGain(krv_handle handle, uint32_t channel, float* result) noexcept
{
    if (isValid(handle) && !hasChannel(handle, channel))
        return KRV_STATUS_BAD_ARGUMENT;
    return read(handle, result,
                [&](const CFilteringEngine& engine) { return engine.getChannelGain(channel); });
}

int krv_setChannelDelay(krv_handle handle, uint32_t channel, float delay) noexcept
{
    if (!isValid(handle))
        return KRV_STATUS_BAD_HANDLE;
    if (!hasChannel(handle, channel))
        return KRV_STATUS_BAD_ARGUMENT;
    handle->engine->setChannelDelay(channel, delay);
    return KRV_STATUS_OK;
}

int krv_getChannelDelay(krv_handle handle, uint32_t channel, float* result) noexcept
{
    if (isValid(handle) && !hasChannel(handle, channel))
        return KRV_STATUS_BAD_ARGUMENT;
    return read(handle, result,
                [&](const CFilteringEngine& engine) { return engine.getChannelDelay(channel); });
}

int krv_setOverallGain(krv_handle handle, float gain) noexcept
{
    if (!isValid(handle))
        return KRV_STATUS_BAD_HANDLE;
    handle->engine->setOverallGain(gain);
    return KRV_STATUS_OK;
}

int krv_getOverallGain(krv_handle handle, float* result) noexcept
{
    return read(handle, result, [](const CFilteringEngine& engine) { return engine.getOverallGain(); });
}

int krv_setDefaultDelayAndGain(krv_handle handle) noexcept
{
    if (!isValid(handle))
        return KRV_STATUS_BAD_HANDLE;
    if (handle->filterSet == nullptr)
        return KRV_STATUS_NO_FILTER_SET;
    handle->filterSet->setDefaultGainAndDelay();
    handle->engine->enableDelayAndGain(true);
    return KRV_STATUS_OK;
}
