// SPDX-License-Identifier: GPL-3.0-or-later
#include "filter/number_parsing.h"

#include <bit>
#include <climits>
#include <clocale>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/random.h"
#include "tests/support/temp_folder.h"

namespace {

using korvo::parser::parseInteger;
using korvo::parser::parseNumber;
using korvo::parser::parseNumberList;

TEST(NumberParsing, ReadsIntegersAsAtoiDoes)
{
    const struct
    {
        const char* text;
        int value;
    } rows[] = {
        {"", 0},
        {"44100", 44100},
        {" \t\n\v\f\r+7", 7},
        {"-12.9", -12},
        {"- 1", 0},
        {"x1", 0},
        {"0x10", 0},
        {"2147483647", INT_MAX},
        {"1e3", 1},
        {"-2147483648", INT_MIN},
        {"+-1", 0},
        {"2147483648", INT_MAX},
        {"4294967299", INT_MAX},
        {"-99999999999999999999999", INT_MIN},
        {"99999999999999999999999", INT_MAX},
    };
    for (const auto& row : rows)
        EXPECT_EQ(parseInteger(row.text), row.value) << row.text;
}

std::vector<std::string> split(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);)
        parts.push_back(part);
    return parts;
}

std::string makeToken(std::mt19937& random)
{
    static const std::vector<std::string> s_special =
        split("inf|-INFINITY|nan|-nan(12)|nan(|+5.25|\n1.5|\n|1.5\n2|\t-\t|abc|0x|0x1p3|-0x.8p-2|1e400|"
              "-1e400|4.9e-324|2e-324|1e-400|1.e5|.5|-.5|.|-|1.5abc|0.1x|1.5.5|--1.5|-0.0|0.|7|1e|1e+|"
              "0,5|1.0000000596046447753906250000000000001|1.00000005960464477539062500000|"
              "3.4028236e38|1e-46|8.123456789012|8.1234567890123|9.9\xC3\xA4",
              '|');
    char text[64];
    std::uniform_real_distribution<double> uniform(-2.0, 2.0);
    switch (random() % 8)
    {
    case 0:
        return s_special[random() % s_special.size()];
    case 1: {
        const std::uint64_t bits = (std::uint64_t{random()} << 32) | random();
        std::snprintf(text, sizeof(text), random() % 4 != 0 ? "%.17g" : "%a", std::bit_cast<double>(bits));
        return text;
    }
    case 2:
        std::snprintf(text, sizeof(text), "%.9g", uniform(random) * 1e-4);
        return text;
    case 3:
        std::snprintf(text, sizeof(text), "%.*f", static_cast<int>(random() % 20), uniform(random) * 1000);
        return text;
    default:
        std::snprintf(text, sizeof(text), "%.*f", static_cast<int>(random() % 15), uniform(random) * 4);
        return text;
    }
}

TEST(NumberParsing, ReadsListsAsAtofReadsEachToken)
{
    std::mt19937 random = korvotest::makeRandom(11);
    for (int round = 0; round < 4000; ++round)
    {
        std::string list;
        std::vector<std::uint32_t> expected;
        for (unsigned long tokens = random() % 50; tokens > 0; --tokens)
        {
            const std::string token = makeToken(random);
            expected.push_back(
                std::bit_cast<std::uint32_t>(static_cast<float>(std::strtod(token.c_str(), nullptr))));
            for (unsigned long separators = 1 + (random() % 4 == 0 ? 2 : 0); separators > 0; --separators)
                list += " []"[random() % 8 < 6 ? 0 : 1 + random() % 2];
            list += token;
        }
        // As large as the text and no larger, so that a read beyond either end is found out.
        const std::size_t before = random() % 40;
        const std::size_t after = 1 + random() % 40;
        const auto memory = std::make_unique<char[]>(before + list.size() + after);
        std::fill_n(memory.get(), before, '5');
        list.copy(memory.get() + before, list.size());
        std::fill_n(memory.get() + before + list.size(), after, '5');
        memory[before + list.size()] = random() % 2 != 0 ? '<' : '\0';

        std::vector<float> values(expected.size());
        const std::string_view text(memory.get() + before, list.size());
        const std::size_t capacity = random() % 4 == 0 ? expected.size() / 2 : expected.size();
        ASSERT_EQ(
            parseNumberList(text, {memory.get(), before + list.size() + after}, values.data(), capacity),
            capacity);
        for (std::size_t i = 0; i < capacity; ++i)
            ASSERT_EQ(std::bit_cast<std::uint32_t>(values[i]), expected[i]) << list << " at " << i;
    }
}

TEST(NumberParsing, EndsAListAtAZeroByte)
{
    const char text[] = "1.5 2.5\0 3.5";
    float values[3] = {};
    EXPECT_EQ(parseNumberList({text, sizeof(text) - 1}, {text, sizeof(text)}, values, 3), 2U);
    EXPECT_EQ(values[1], 2.5F);
}

/// Few machines have a locale with a decimal comma, so this makes one: the C library's form of LC_NUMERIC is
/// a magic number, the count and offsets of six entries, and the entries.
void writeCommaLocale(const korvotest::CTempFolder& folder)
{
    const std::uint32_t words[] = {0x20031115U ^ LC_NUMERIC, 6, 32, 34, 35, 36, 40, 44};
    std::string file(reinterpret_cast<const char*>(words), sizeof(words));
    file += std::string(",\0\0\0", 4) + std::string(",\0\0\0", 4) + std::string("\0\0\0\0", 4) +
            std::string("ASCII\0", 6);
    folder.write("comma/LC_NUMERIC", file);
}

TEST(NumberParsing, ReadsTheSameInALocaleWithADecimalComma)
{
    const korvotest::CTempFolder folder;
    writeCommaLocale(folder);
    setenv("LOCPATH", folder.path().c_str(), 1);
    const bool set = std::setlocale(LC_NUMERIC, "comma") != nullptr;
    const double comma = std::strtod("1,5", nullptr);
    float values[3] = {};
    const std::string list = "[1.5 0x1.8p1 +2.5]";
    const std::size_t count = parseNumberList(list, list, values, 3);
    const float attribute = parseNumber(" 0.25");
    std::setlocale(LC_NUMERIC, "C");
    unsetenv("LOCPATH");
    if (!set || comma != 1.5)
        GTEST_SKIP() << "the C library does not take the locale made here";
    EXPECT_EQ(count, 3U);
    EXPECT_EQ(values[0], 1.5F);
    EXPECT_EQ(values[1], 3.0F);
    EXPECT_EQ(values[2], 2.5F);
    EXPECT_EQ(attribute, 0.25F);
}

} // namespace
