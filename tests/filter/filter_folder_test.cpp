// SPDX-License-Identifier: GPL-3.0-or-later
#include "filter/filter_folder.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
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
    folder.write("b.korvo", named("Twice"));
    folder.write("a.korvo", named("Twice"));
    folder.write("zoe.korvo", named("Zo\xC3\xAB"));
    folder.write("bytes.korvo", named("a\xFF\xE2\x82z"));
    folder.write("dot.", named("Dot"));
    folder.write("wrong.xml", kExample);
    folder.write("korvo", kExample);
    folder.write("inner/sub.korvo", kExample);
    folder.write("folder.korvo/sub.txt", kExample);
    folder.write("empty.korvo", "");
    folder.write("cut.korvo", kExample.substr(0, 200));
    folder.write("binary.korvo", std::string("\0\xFF<brisa>\x01", 10));
    folder.write("channels.korvo", "<brisa><Opal ProjectName=\"None\"/></brisa>");
    folder.write("nameless.korvo", replaced(kExample, "ProjectName=\"Living room\"", ""));
    folder.write("blank.korvo", named(""));
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

TEST(FilterFolder, LiesBelowTheUsersApplicationData)
{
    const korvotest::CTempFolder home;
    const char* const before = std::getenv("HOME");
    const std::string kept = before != nullptr ? before : "";
    setenv("HOME", home.path().c_str(), 1);
    EXPECT_EQ(getFiltersPath().toStdString(),
              home.path().string() + "/.config/Application Support/Korvo/Filters");
    before != nullptr ? setenv("HOME", kept.c_str(), 1) : unsetenv("HOME");
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
    const std::string bad = "\xEF\xBF\xBD";
    const std::pair<std::string, std::string> rows[] = {
        {"plain", "plain"},
        {"\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEF\xBF\xBD\xF0\x90\x80\x80\xF4\x8F\xBF\xBF",
         "\xC2\x80\xDF\xBF\xE0\xA0\x80\xED\x9F\xBF\xEF\xBF\xBD\xF0\x90\x80\x80\xF4\x8F\xBF\xBF"},
        {"\xC1\xBF", bad + bad},                     // overlong
        {"\xE0\x9F\xBF", bad + bad + bad},           // overlong
        {"\xED\xA0\x80", bad + bad + bad},           // surrogate
        {"\xF4\x90\x80\x80", bad + bad + bad + bad}, // above U+10FFFF
        {"x\xF0\x9F\x98", "x" + bad + bad + bad},    // cut off
    };
    for (const auto& [text, expected] : rows)
        EXPECT_EQ(decodeUtf8(text.c_str()).toStdString(), expected);
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
