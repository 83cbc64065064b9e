// SPDX-License-Identifier: GPL-3.0-or-later
#include "filter/filter_folder.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "filter/filter_jobs.h"
#include "tests/filter/document_fixture.h"
#include "tests/support/temp_folder.h"

namespace {

using namespace korvo::filter;
using korvotest::kExample;
using korvotest::replaced;

std::string named(const std::string& name)
{
    return replaced(kExample, "Living room", name);
}

juce::File folderOf(const korvotest::CTempFolder& folder)
{
    return juce::File(juce::String::fromUTF8(folder.path().c_str()));
}

/// Lists a folder as the library does, and gives names and file names.
std::vector<std::string> listed(const juce::File& folder)
{
    FilterListEntry* list = nullptr;
    EXPECT_TRUE(enumFilters(folder, FilterEnumCallback, &list));
    std::vector<std::string> entries;
    for (const FilterListEntry* entry = list; entry != nullptr; entry = entry->next)
        entries.push_back(std::string(entry->name) + "|" +
                          std::filesystem::path(entry->path).filename().string());
    freeFilterList(list);
    EXPECT_EQ(list, nullptr);
    return entries;
}

TEST(FilterFolderThreads, ListsTheDocumentsThatHaveANameAndSkipsAllElse)
{
    const korvotest::CTempFolder folder;
    for (const char* name : {"a.korvo", "b.korvo"})
        folder.write(name, named("Twice"));
    folder.write("zoe.korvo", named("Zo\xC3\xAB"));
    folder.write("bytes.korvo", named("a\xFF\xE2\x82z"));
    folder.write("dot.", named("Dot"));
    for (const char* name : {"wrong.xml", "korvo", "inner/sub.korvo", "folder.korvo/sub.txt"})
        folder.write(name, kExample);
    const std::string unusable[] = {"",
                                    kExample.substr(0, 200),
                                    std::string("\0\xFF<brisa>\x01", 10),
                                    named(""),
                                    "<brisa><Opal ProjectName=\"None\"/></brisa>",
                                    replaced(kExample, "ProjectName=\"Living room\"", "")};
    for (std::size_t i = 0; i < std::size(unusable); ++i)
        folder.write("unusable" + std::to_string(i) + ".korvo", unusable[i]);
    ASSERT_EQ(mkfifo((folder.path() / "pipe.korvo").c_str(), 0600), 0);
    std::filesystem::create_symlink("/dev/zero", folder.path() / "zero.korvo");
    std::filesystem::create_symlink("nowhere", folder.path() / "broken.korvo");

    std::vector<std::string> entries = listed(folderOf(folder));
    ASSERT_FALSE(entries.empty());
    EXPECT_EQ(entries.back(), "Dot|dot."); // the second of the two searches
    EXPECT_THAT(entries, testing::UnorderedElementsAre(
                             "Twice|a.korvo", "Twice|b.korvo", "Zo\xC3\xAB|zoe.korvo",
                             "a\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBDz|bytes.korvo", "Dot|dot."));
    EXPECT_TRUE(listed(folderOf(folder).getChildFile("missing")).empty());
}

TEST(FilterFolderThreads, ReportsNothingAfterTheTimeOut)
{
    const korvotest::CTempFolder folder;
    for (int i = 0; i < 5; ++i)
        folder.write(std::to_string(i) + ".korvo", kExample);
    const auto list = std::make_unique<std::vector<std::string>>();
    const auto slowly = [](const juce::String& name, juce::File, bool, bool, void* user) {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        static_cast<std::vector<std::string>*>(user)->push_back(name.toStdString());
    };
    EXPECT_FALSE(enumFilters(folderOf(folder), slowly, list.get(), 40));
    const std::size_t reported = list->size();
    EXPECT_LT(reported, 5U);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(list->size(), reported);

    const auto failing = [](const juce::String&, juce::File, bool, bool, void*) { throw std::bad_alloc(); };
    EXPECT_FALSE(enumFilters(folderOf(folder), failing, nullptr));
}

TEST(FilterFolder, ReplacesBytesThatAreNotUtf8)
{
    const char* const edges =
        "\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEF\xBF\xBD\xF0\x90\x80\x80\xF4\x8F\xBF\xBF";
    EXPECT_EQ(decodeUtf8(edges).toStdString(), edges);
    // Overlong twice, a surrogate, one above U+10FFFF, and one that is cut off.
    for (const std::string text :
         {"\xC1\xBF", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xF4\x90\x80\x80", "\xF0\x9F\x98"})
    {
        std::string expected = "x";
        for (std::size_t i = 0; i < text.size(); ++i)
            expected += "\xEF\xBF\xBD";
        EXPECT_EQ(decodeUtf8(("x" + text).c_str()).toStdString(), expected);
    }
    EXPECT_TRUE(decodeUtf8(nullptr).isEmpty());
}

TEST(FilterFolder, RefusesWhatIsLongerThanAnyDocumentUnread)
{
    const korvotest::CTempFolder folder;
    const auto path = folder.write("huge.korvo", kExample);
    korvotest::CRecorder recorder;
    const auto load = [&](std::uintmax_t bytes) {
        std::filesystem::resize_file(path, bytes); // the hole reads as zeros, which end the text
        const auto stream = openFilterFile(folderOf(folder).getChildFile("huge.korvo"));
        return loadFilterDocument(stream.get(), &recorder);
    };
    EXPECT_EQ(load(20U << 20), kJobDone);
    EXPECT_EQ(recorder.wantsCalls, 1);
    EXPECT_EQ(load(kLongestDocument + 1), kJobRefused);
    EXPECT_EQ(recorder.wantsCalls, 1);
    EXPECT_EQ(openFilterFile(folderOf(folder)), nullptr);
}

} // namespace
