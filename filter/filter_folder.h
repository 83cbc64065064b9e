// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <memory>

#include <juce_core/juce_core.h>

/// The folder of the user's filters and the list of what is in it.
namespace korvo::filter {

/// Extension of a filter file.
inline constexpr char kFilterSuffix[] = "korvo";

inline constexpr int kListingLimitMs = 30000;

/// One filter of the folder. Both texts are NUL-terminated UTF-8 from malloc().
struct FilterListEntry
{
    char* name;
    char* path;
    FilterListEntry* next;
};

/// Full path of the user's filter folder, which need not exist.
juce::String getFiltersPath();

/// Lists the filters in `folder`, on a thread of the filter job pool, and waits for it, at most `limitMs`.
/// `callback` runs on that thread, once for each readable document that has a name; both flags are false.
/// After a time-out it is not called any more, even though the job may still run.
/// @return whether the whole folder has been listed
/// Threads: any but the pool's own.
bool enumFilters(juce::File folder,
                 void (*callback)(const juce::String& name, juce::File file, bool, bool, void* user),
                 void* user, int limitMs = kListingLimitMs);

/// Appends an entry to the list whose head, a FilterListEntry*, `user` points to. The callback for
/// enumFilters(). Throws std::bad_alloc, with the list as it was.
void FilterEnumCallback(const juce::String& name, juce::File file, bool, bool, void* user);

/// Frees all entries and sets `head` to null.
void freeFilterList(FilterListEntry*& head) noexcept;

/// A NUL-terminated UTF-8 copy from malloc(), or null where memory is out.
char* MakeUtf8CString(const juce::String& text);

/// Text of a document as a string. Null gives an empty one; bytes that are not UTF-8 become U+FFFD.
juce::String decodeUtf8(const char* text);

/// Opens a file to read. Null for what cannot be opened and for all but regular files: a named pipe would
/// block, a device might never end.
std::unique_ptr<juce::InputStream> openFilterFile(const juce::File& file);

} // namespace korvo::filter
