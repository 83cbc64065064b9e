// SPDX-License-Identifier: GPL-3.0-or-later
#include "filter/number_parsing.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

#include <emmintrin.h>
#include <locale.h>

namespace korvo::parser {

namespace {

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool isWhiteSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

bool isSeparator(char c)
{
    return c == ' ' || c == '[' || c == ']';
}

/// The exact way, for everything: hexadecimal numbers, infinities, results out of range.
double parseAsCLibrary(const char* text)
{
    // The C library hands out its built-in object for this locale: there is nothing to release.
    static const locale_t s_cLocale = newlocale(LC_ALL_MASK, "C", nullptr);
    return strtod_l(text, nullptr, s_cLocale);
}

/// Any token, up to `end`. The character there stands in no number, so the C library stops as well.
double parseToken(const char* token, const char* end)
{
    // The C library would skip white space beyond the end.
    token = std::find_if_not(token, end, isWhiteSpace);
    if (token == end)
        return 0.0;
    const char* digits = token + (*token == '-' ? 1 : 0);
    if (digits != end && (isDigit(*digits) || *digits == '.'))
    {
        double value = 0.0;
        const auto [next, error] = std::from_chars(token, end, value);
        if (error == std::errc() && (next == end || (*next != 'x' && *next != 'X')))
            return value;
    }
    return parseAsCLibrary(token);
}

/// Value of the `count` digits, 16 at most, that end before `end`. 16 bytes there can be read.
std::int64_t valueOfDigits(const char* end, std::uint32_t count)
{
    static constexpr unsigned char kMask[32] = {0,  0,  0,  0,  0,  0,  0,  0,  0,  0,  0,
                                                0,  0,  0,  0,  0,  15, 15, 15, 15, 15, 15,
                                                15, 15, 15, 15, 15, 15, 15, 15, 15, 15};
    const auto load = [](const void* from) { return _mm_loadu_si128(static_cast<const __m128i*>(from)); };
    const __m128i digits = _mm_and_si128(load(end - 16), load(kMask + count));
    const __m128i tens = _mm_mullo_epi16(_mm_and_si128(digits, _mm_set1_epi16(0xFF)), _mm_set1_epi16(10));
    const __m128i pairs = _mm_add_epi16(tens, _mm_srli_epi16(digits, 8));
    const __m128i fours = _mm_madd_epi16(pairs, _mm_set1_epi32(100 | (1 << 16)));
    const __m128i eights = _mm_madd_epi16(_mm_packs_epi32(fours, fours), _mm_set1_epi32(10000 | (1 << 16)));
    const std::int64_t both = _mm_cvtsi128_si64(eights);
    return (both & 0xFFFFFFFF) * 100000000 + (both >> 32);
}

std::uint32_t maskOf(__m128i bytes)
{
    return static_cast<std::uint32_t>(_mm_movemask_epi8(bytes));
}

/// Reads a token such as "0.0123456789" or "-1.5": one digit, a point, 1 to 12 digits. Both the digits
/// without the point and the power of ten below them are whole numbers that a double holds, so one division
/// rounds as atof() does. Lists consist of little else, and std::from_chars takes twice as long for each.
/// @return behind the token, or null for one of another form; 16 bytes on either side of `token` can be read
const char* parseShort(const char* token, double& value)
{
    static constexpr double kPowers[] = {1e0, 1e1, 1e2, 1e3, 1e4, 1e5, 1e6, 1e7, 1e8, 1e9, 1e10, 1e11, 1e12};

    const __m128i text = _mm_loadu_si128(reinterpret_cast<const __m128i*>(token));
    const __m128i fromZero = _mm_sub_epi8(text, _mm_set1_epi8('0'));
    const __m128i digits = _mm_cmpeq_epi8(_mm_min_epu8(fromZero, _mm_set1_epi8(9)), fromZero);
    const __m128i ends =
        _mm_or_si128(_mm_cmpeq_epi8(text, _mm_set1_epi8(' ')), _mm_cmpeq_epi8(text, _mm_set1_epi8(']')));
    // The next token waits for this length and for nothing else.
    const auto length = static_cast<std::uint32_t>(std::countr_zero(maskOf(ends) | 1U << 16));
    const char* const end = token + length;

    const std::uint32_t sign = *token == '-' ? 1 : 0;
    const std::uint32_t fraction = length - sign - 2;
    const std::uint32_t others = ~maskOf(digits) & ((1U << length) - 1);
    if (fraction - 1 > 11 || others != (2U << sign | sign) || token[sign + 1] != '.')
        return nullptr;

    const double power = kPowers[fraction];
    const double whole = token[sign] - '0';
    const double magnitude = (whole * power + static_cast<double>(valueOfDigits(end, fraction))) / power;
    value = std::bit_cast<double>(std::bit_cast<std::uint64_t>(magnitude) | (std::uint64_t{sign} << 63));
    return end;
}

} // namespace

int parseInteger(const char* text)
{
    while (isWhiteSpace(*text))
        ++text;
    const bool negative = *text == '-';
    if (*text == '-' || *text == '+')
        ++text;
    constexpr long long kBeyondInt = 1LL + std::numeric_limits<int>::max();
    long long magnitude = 0;
    for (; isDigit(*text); ++text)
        magnitude = std::min(magnitude * 10 + (*text - '0'), kBeyondInt);
    if (negative)
        return static_cast<int>(-magnitude);
    return static_cast<int>(std::min(magnitude, kBeyondInt - 1));
}

float parseNumber(const char* text)
{
    return static_cast<float>(parseAsCLibrary(text));
}

std::size_t parseNumberList(std::string_view list, std::string_view around, float* values,
                            std::size_t capacity)
{
    constexpr std::size_t kRoom = 16;
    const char* text = list.data();
    const char* const end = text + list.size();
    const char* const shortFrom = around.data() + std::min(around.size(), kRoom);
    const char* const shortTo = around.data() + around.size() - std::min(around.size(), kRoom);
    std::size_t count = 0;
    for (;;)
    {
        while (text != end && isSeparator(*text))
            ++text;
        if (text == end || *text == '\0' || count == capacity)
            return count;

        double value = 0.0;
        const char* behind = text >= shortFrom && text < shortTo ? parseShort(text, value) : nullptr;
        if (behind == nullptr)
        {
            behind = std::find_if(text, end, [](char c) { return c == '\0' || isSeparator(c); });
            value = parseToken(text, behind);
        }
        values[count++] = static_cast<float>(value);
        text = behind;
    }
}

} // namespace korvo::parser
