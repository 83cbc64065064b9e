// SPDX-License-Identifier: GPL-3.0-or-later
#include "filter/number_parsing.h"

#include <bit>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/random.h"
#include "tests/support/temp_folder.h"

namespace {

using namespace korvo::parser;

TEST(NumberParsing, ReadsIntegersAsAtoiDoes)
{
    for (const char* text : {"", "44100", " \t\n\v\f\r+7", "-12.9", "- 1", "x1", "0x10", "1e3", "+-1", "-0",
                             "2147483647", "-2147483648"})
        EXPECT_EQ(parseInteger(text), std::atoi(text)) << text;
    for (const char* beyond : {"2147483648", "4294967299", "99999999999999999999999"})
    {
        EXPECT_EQ(parseInteger(beyond), INT_MAX);
        EXPECT_EQ(parseInteger(std::string("-").append(beyond).c_str()), INT_MIN);
    }
}

std::string makeToken(std::mt19937& random)
{
    static const std::string s_special =
        "|inf|-INFINITY|nan|-nan(12)|nan(|+5.25|\n1.5|\n|1.5\n2|\t-\t|abc|0x|0x1p3|-0x.8p-2|1e400|-1e400|"
        "4.9e-324|2e-324|1e-400|1.e5|.5|-.5|.|-|1.5abc|0.1x|1.5.5|--1.5|-0.0|0.|7|1e|1e+|0,5|3.4028236e38|"
        "1.0000000596046447753906250000000000001|1.00000005960464477539062500000|1e-46|8.123456789012|"
        "8.1234567890123|9.9\xC3\xA4|1.5e-0|1.5e-0x|-0.0e-09|9.999999999999e-09|e-05|-e-05|1e-05|1.e-05|"
        "1.5e+05|1.5e-10|1.5-e-05|12.5e-05|1:5e-05";
    char text[64];
    const double value = std::uniform_real_distribution<double>(-4.0, 4.0)(random);
    switch (random() % 8)
    {
    case 0: {
        const std::size_t at = s_special.find('|', random() % s_special.rfind('|')) + 1;
        return s_special.substr(at, s_special.find('|', at) - at);
    }
    case 1: {
        const std::uint64_t bits = (std::uint64_t{random()} << 32) | random();
        std::snprintf(text, sizeof(text), random() % 4 != 0 ? "%.17g" : "%a", std::bit_cast<double>(bits));
        return text;
    }
    case 2:
    case 3: {
        const double scaled = std::ldexp(value, -static_cast<int>(random() % 40));
        std::snprintf(text, sizeof(text), "%.*e", static_cast<int>(random() % 15), scaled);
        return text;
    }
    default:
        std::snprintf(text, sizeof(text), "%.*f", static_cast<int>(random() % 18), value);
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
        const std::string ends[] = {"", "]", " ] ", std::string("\0 1.5 2.5", 9)}; // a zero byte ends a list
        list += ends[random() % std::size(ends)];
        // As large as the text and no larger, so that a read beyond either end is found out.
        const std::size_t before = random() % 40;
        const std::size_t size = before + list.size() + 1 + random() % 80;
        const auto memory = std::make_unique<char[]>(size);
        std::fill_n(memory.get(), size, '5');
        list.copy(memory.get() + before, list.size());
        memory[before + list.size()] = random() % 2 != 0 ? '<' : '\0';

        const std::size_t capacity = random() % 4 == 0 ? expected.size() / 2 : expected.size() + random() % 2;
        std::vector<float> values(capacity);
        const std::size_t count = std::min(capacity, expected.size());
        const std::string_view text(memory.get() + before, list.size());
        ASSERT_EQ(parseNumberList(text, {memory.get(), size}, values.data(), capacity), count) << list;
        for (std::size_t i = 0; i < count; ++i)
            ASSERT_EQ(std::bit_cast<std::uint32_t>(values[i]), expected[i]) << list << " at " << i;
    }
}

/// Few machines have a locale with a decimal comma, so this makes one: the C library's form of LC_NUMERIC is
/// a magic number, the count and offsets of six entries, and the entries.
TEST(NumberParsing, ReadsTheSameInALocaleWithADecimalComma)
{
    const korvotest::CTempFolder folder;
    const std::uint32_t words[] = {0x20031115U ^ LC_NUMERIC, 6, 32, 34, 35, 36, 40, 44};
    const std::string entries(",\0\0\0,\0\0\0\0\0\0\0ASCII\0", 18);
    folder.write("comma/LC_NUMERIC",
                 std::string(reinterpret_cast<const char*>(words), sizeof(words)) + entries);
    setenv("LOCPATH", folder.path().c_str(), 1);
    const bool set = std::setlocale(LC_NUMERIC, "comma") != nullptr && std::strtod("1,5", nullptr) == 1.5;
    std::vector<float> values(3);
    const std::string list = "[1.5 0x1.8p1 +2.5]";
    values.resize(parseNumberList(list, list, values.data(), 3));
    values.push_back(parseNumber(" 0.25"));
    std::setlocale(LC_NUMERIC, "C");
    unsetenv("LOCPATH");
    if (!set)
        GTEST_SKIP() << "the C library does not take the locale made here";
    EXPECT_THAT(values, testing::ElementsAre(1.5F, 3.0F, 2.5F, 0.25F));
}

} // namespace
