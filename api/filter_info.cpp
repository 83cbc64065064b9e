// SPDX-License-Identifier: GPL-3.0-or-later
#include <algorithm>
#include <cstring>

#include "api/instance.h"

namespace korvo::api {

namespace {

using korvo::filter::CFIIRFilter;

/// KRV_STATUS_OK if the filter set may be asked.
int checkFilterSet(krv_handle handle)
{
    if (!isValid(handle))
        return KRV_STATUS_BAD_HANDLE;
    return handle->filterSet == nullptr ? KRV_STATUS_NO_FILTER_SET : KRV_STATUS_OK;
}

template<typename T, typename Getter>
int read(krv_handle handle, T* result, Getter&& value) noexcept
{
    if (const int status = checkFilterSet(handle); status != KRV_STATUS_OK)
        return status;
    if (result == nullptr)
        return KRV_STATUS_BAD_ARGUMENT;
    *result = static_cast<T>(value(*handle->filterSet));
    return KRV_STATUS_OK;
}

int copyText(krv_handle handle, const juce::String& (CFIIRFilter::*text)() const, char* buffer,
             std::uint32_t length)
{
    // The length comes first, before the handle: a host may probe with an empty buffer and no handle.
    if (length == 0)
        return KRV_STATUS_BAD_ARGUMENT;
    if (const int status = checkFilterSet(handle); status != KRV_STATUS_OK)
        return status;
    if (buffer == nullptr)
        return KRV_STATUS_BAD_ARGUMENT;
    return guarded(KRV_STATUS_BAD_ARGUMENT, [&] {
        std::strncpy(buffer, (handle->filterSet->*text)().toRawUTF8(), length);
        if (buffer[length - 1] == '\0')
            return KRV_STATUS_OK;
        buffer[length - 1] = '\0';
        return KRV_STATUS_BAD_ARGUMENT;
    });
}

} // namespace

} // namespace korvo::api

using namespace korvo::api;

int krv_getFilterLatency(krv_handle handle, float* result) noexcept
{
    return read(handle, result, [](const CFIIRFilter& set) { return set.getlatency(); });
}

int krv_getFilterMaxGain(krv_handle handle, float* result) noexcept
{
    return read(handle, result, [](const CFIIRFilter& set) { return set.getMaxGain(); });
}

int krv_getFilterOperatingMode(krv_handle handle, uint32_t* result) noexcept
{
    return read(handle, result, [](const CFIIRFilter& set) { return set.getOperatingMode(); });
}

int krv_getFilterName(krv_handle handle, char* buffer, uint32_t length) noexcept
{
    return copyText(handle, &CFIIRFilter::getName, buffer, length);
}

int krv_getFilterPath(krv_handle handle, char* buffer, uint32_t length) noexcept
{
    return copyText(handle, &CFIIRFilter::getPath, buffer, length);
}

int krv_getFilterSamplerates(krv_handle handle, uint32_t* rates, uint32_t capacity) noexcept
{
    if (const int status = checkFilterSet(handle); status != KRV_STATUS_OK)
        return status;
    if (rates == nullptr && capacity != 0)
        return KRV_STATUS_BAD_ARGUMENT;
    std::fill_n(rates, capacity, 0U);
    std::uint32_t written = 0;
    for (const std::uint32_t rate : kStandardRates)
    {
        if (!handle->filterSet->supportsSampleRate(rate))
            continue;
        if (written == capacity)
            return KRV_STATUS_BAD_ARGUMENT;
        rates[written++] = rate;
    }
    return KRV_STATUS_OK;
}

int krv_getOutputRouting(krv_handle handle, uint32_t* routing, uint32_t capacity) noexcept
{
    if (const int status = checkFilterSet(handle); status != KRV_STATUS_OK)
        return status;
    if (routing == nullptr && capacity != 0)
        return KRV_STATUS_BAD_ARGUMENT;
    std::fill_n(routing, capacity, 0U);
    const std::uint32_t* word = handle->filterSet->getOutputRouting();
    for (std::uint32_t written = 0; *word != 0; ++word)
    {
        if (written == capacity)
            return KRV_STATUS_BAD_ARGUMENT;
        routing[written++] = *word;
    }
    return KRV_STATUS_OK;
}
