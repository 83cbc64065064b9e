// SPDX-License-Identifier: GPL-3.0-or-later
#include "filter/filter_folder.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include <filesystem>
#include <new>
#include <string>
#include <utility>

#include "filter/filter_document.h"
#include "filter/filter_job_pool.h"
#include "filter/filter_jobs.h"
#include "filter/job_loan.h"

namespace korvo::filter {

namespace {

/// Takes the header of a document.
class CFilterInfo : public IFIIRCallback
{
public:
    unsigned int IFIIRCallback_Wants() const override { return kWantsFilterInfo; }

    bool IFIIRCallback_FilterInfo(const char* projectName, const char*, unsigned int declaredChannels,
                                  const char*, const char*, const char*) override
    {
        name = decodeUtf8(projectName);
        channelCount = declaredChannels;
        return true;
    }

    juce::String name;
    unsigned int channelCount = 0;
};

using Callback = void (*)(const juce::String&, juce::File, bool, bool, void*);

struct SListing
{
    CJobLoan loan;
    bool complete = false; ///< guarded by `loan`
    juce::WaitableEvent finished;
};

class EFJob : public juce::ThreadPoolJob
{
public:
    EFJob(std::shared_ptr<SListing> listing, juce::File folder, Callback callback, void* user)
        : juce::ThreadPoolJob({}), m_listing(std::move(listing)), m_folder(std::move(folder)),
          m_callback(callback), m_user(user)
    {
    }

    JobStatus runJob() override
    {
        bool complete = false;
        try
        {
            // Names that end in a dot are filters as well.
            complete = list(juce::String("*.") + kFilterSuffix) && list("*.");
        }
        catch (...)
        {
            // Out of memory: the list is not complete.
        }
        m_listing->loan.use([&] { m_listing->complete = complete; });
        m_listing->finished.signal();
        return jobHasFinished;
    }

private:
    /// False when nobody waits any more.
    bool list(const juce::String& pattern)
    {
        for (const juce::DirectoryEntry& entry :
             juce::RangedDirectoryIterator(m_folder, false, pattern, juce::File::findFiles))
        {
            if (!m_listing->loan.use([] {}))
                return false;
            if (!report(entry.getFile()))
                return false;
        }
        return true;
    }

    bool report(const juce::File& file)
    {
        CFilterInfo info;
        const std::unique_ptr<juce::InputStream> stream = openFilterFile(file);
        if (loadFilterDocument(stream.get(), &info) != kJobDone || info.name.isEmpty())
            return true;
        return m_listing->loan.use([&] { m_callback(info.name, file, false, false, m_user); });
    }

    const std::shared_ptr<SListing> m_listing;
    const juce::File m_folder;
    const Callback m_callback;
    void* const m_user;
};

/// Bytes of the UTF-8 sequence at the start of `text`, 0 if there is none. Overlong forms, surrogates and
/// what lies above U+10FFFF are none.
std::size_t sequenceLength(const char* text)
{
    const auto byte = [text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const auto follows = [&](std::size_t i, unsigned from, unsigned to) {
        return byte(i) >= from && byte(i) <= to;
    };
    const unsigned lead = byte(0);
    if (lead < 0x80)
        return 1;
    if (lead >= 0xC2 && lead <= 0xDF)
        return follows(1, 0x80, 0xBF) ? 2 : 0;
    if (lead >= 0xE0 && lead <= 0xEF)
    {
        const bool second = follows(1, lead == 0xE0 ? 0xA0 : 0x80, lead == 0xED ? 0x9F : 0xBF);
        return second && follows(2, 0x80, 0xBF) ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4)
    {
        const bool second = follows(1, lead == 0xF0 ? 0x90 : 0x80, lead == 0xF4 ? 0x8F : 0xBF);
        return second && follows(2, 0x80, 0xBF) && follows(3, 0x80, 0xBF) ? 4 : 0;
    }
    return 0;
}

} // namespace

juce::String getFiltersPath()
{
    return juce::File::getSpecialLocation(juce::File::userApplicationDataDirectory)
        .getChildFile("Application Support/Korvo/Filters")
        .getFullPathName();
}

bool enumFilters(juce::File folder, Callback callback, void* user, int limitMs)
{
    const auto listing = std::make_shared<SListing>();
    filterJobPool().addJob(std::make_unique<EFJob>(listing, std::move(folder), callback, user));
    listing->finished.wait(limitMs);
    listing->loan.callIn();
    return listing->complete;
}

void FilterEnumCallback(const juce::String& name, juce::File file, bool, bool, void* user)
{
    auto* entry =
        new FilterListEntry{MakeUtf8CString(name), MakeUtf8CString(file.getFullPathName()), nullptr};
    if (entry->name == nullptr || entry->path == nullptr)
    {
        freeFilterList(entry);
        throw std::bad_alloc();
    }
    auto** link = static_cast<FilterListEntry**>(user);
    while (*link != nullptr)
        link = &(*link)->next;
    *link = entry;
}

void freeFilterList(FilterListEntry*& head) noexcept
{
    while (head != nullptr)
    {
        FilterListEntry* entry = std::exchange(head, head->next);
        std::free(entry->name);
        std::free(entry->path);
        delete entry;
    }
}

char* MakeUtf8CString(const juce::String& text)
{
    const std::size_t bytes = text.getNumBytesAsUTF8() + 1;
    auto* copy = static_cast<char*>(std::calloc(bytes, 1));
    if (copy != nullptr)
        text.copyToUTF8(copy, bytes);
    return copy;
}

juce::String decodeUtf8(const char* text)
{
    std::string valid;
    while (text != nullptr && *text != '\0')
    {
        const std::size_t length = sequenceLength(text);
        valid.append(length > 0 ? text : "\xEF\xBF\xBD", length > 0 ? length : 3);
        text += length > 0 ? length : 1;
    }
    return juce::String::fromUTF8(valid.c_str());
}

std::unique_ptr<juce::InputStream> openFilterFile(const juce::File& file)
{
    std::error_code error;
    if (!std::filesystem::is_regular_file(file.getFullPathName().toRawUTF8(), error))
        return nullptr;
    return file.createInputStream();
}

} // namespace korvo::filter
