// SPDX-License-Identifier: GPL-3.0-or-later
#include <cstdlib>
#include <cstring>

#include "api/instance.h"

namespace korvo::api {

using korvo::filter::FilterListEntry;

namespace {

/// Lists the user's filter folder into the instance. False if that took too long; the list is empty then.
bool buildFilterList(PROCESSOR_INSTANCE_tag& instance)
{
    const juce::File folder(korvo::filter::getFiltersPath());
    if (korvo::filter::enumFilters(folder, korvo::filter::FilterEnumCallback, &instance.filterList))
        return true;
    korvo::filter::freeFilterList(instance.filterList);
    return false;
}

const FilterListEntry* entryAt(const FilterListEntry* head, std::uint32_t index)
{
    for (; head != nullptr && index != 0; --index)
        head = head->next;
    return head;
}

int loadFrom(PROCESSOR_INSTANCE_tag& instance, const char* path)
{
    if (instance.filterSet == nullptr)
        return KRV_STATUS_NO_FILTER_SET;
    const unsigned status = instance.filterSet->loadAndReadFilter(juce::String::fromUTF8(path), false);
    if (status != KRV_STATUS_OK)
        return static_cast<int>(status);
    instance.filterSet->setDefaultGainAndDelay();
    instance.engine->enableDelayAndGain(true);
    instance.engine->enable(true);
    return KRV_STATUS_OK;
}

} // namespace

} // namespace korvo::api

using namespace korvo::api;

int krv_filters_enumerate(krv_handle handle, uint32_t index, char* buffer, uint32_t length) noexcept
{
    if (!isValid(handle))
        return KRV_STATUS_BAD_HANDLE;
    if (buffer == nullptr && length != 0)
        return KRV_STATUS_BAD_ARGUMENT;
    return guarded(KRV_STATUS_FILE_ERROR, [&] {
        if (handle->filterList == nullptr && !buildFilterList(*handle))
            return KRV_STATUS_FILE_ERROR;
        const FilterListEntry* entry = entryAt(handle->filterList, index);
        if (entry == nullptr)
            return KRV_STATUS_NO_MORE_FILTERS;
        if (length != 0)
            std::strncpy(buffer, entry->name, length); // a name that fills the buffer has no end then
        return KRV_STATUS_OK;
    });
}

int krv_loadFilter(krv_handle handle, uint32_t index) noexcept
{
    if (!isValid(handle))
        return KRV_STATUS_BAD_HANDLE;
    const FilterListEntry* entry = entryAt(handle->filterList, index);
    if (entry == nullptr)
        return KRV_STATUS_BAD_ARGUMENT;
    return guarded(KRV_STATUS_FILE_ERROR, [&] { return loadFrom(*handle, entry->path); });
}

int krv_loadFilterFromFile(krv_handle handle, const char* path) noexcept
{
    if (!isValid(handle))
        return KRV_STATUS_BAD_HANDLE;
    if (path == nullptr)
        return KRV_STATUS_BAD_ARGUMENT;
    return guarded(KRV_STATUS_FILE_ERROR, [&] { return loadFrom(*handle, path); });
}

int krv_setFilterOperatingMode(krv_handle handle, uint32_t mode) noexcept
{
    if (!isValid(handle))
        return KRV_STATUS_BAD_HANDLE;
    if (handle->filterSet == nullptr)
        return KRV_STATUS_NO_FILTER_SET;
    if (mode != korvo::filter::CFIIRFilter::kModeStandard &&
        mode != korvo::filter::CFIIRFilter::kModeMinPhase)
        return KRV_STATUS_BAD_ARGUMENT;
    // The reload's result is not this call's: the host sees it in the operating mode.
    return guarded(KRV_STATUS_OK, [&] {
        handle->filterSet->loadAndReadFilter(handle->filterSet->getPath(),
                                             mode == korvo::filter::CFIIRFilter::kModeMinPhase);
        return KRV_STATUS_OK;
    });
}
