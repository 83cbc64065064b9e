// SPDX-License-Identifier: GPL-3.0-or-later
#include "filter/number_parsing.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstdint>
#include <cstdlib>
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

__m128i load(const void* bytes)
{
    return _mm_loadu_si128(static_cast<const __m128i*>(bytes));
}

std::uint32_t maskOf(__m128i bytes)
{
    return static_cast<std::uint32_t>(_mm_movemask_epi8(bytes));
}

/// A token such as "0.0123456789", "-1.5" or "1.23456789e-05": one digit, a point, 1 to 12 digits, and
/// perhaps an exponent of that form. The digits without the point and the power of ten below them are whole
/// numbers that a double holds, so one division rounds as atof() does. Lists consist of little else, and
/// std::from_chars takes five times as long for each.
struct SShortNumber
{
    __m128i digits; ///< the value of each, without the point, behind zeros; see areDigits()
    double divisor; ///< carries the sign
};

constexpr std::size_t kMostDecimals = 12;
constexpr std::ptrdiff_t kRoomBefore = 17;

/// Takes a token apart if it has that form; that its digits are digits is left to areDigits().
/// @param end behind the token; the kRoomBefore bytes before it can be read
[[gnu::always_inline]] inline bool readShort(const char* token, const char* end, SShortNumber& number)
{
    static constexpr double kDivisors[2][22] = {
        {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10,
         1e11, 1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21},
        {-1e0,  -1e1,  -1e2,  -1e3,  -1e4,  -1e5,  -1e6,  -1e7,  -1e8,  -1e9,  -1e10,
         -1e11, -1e12, -1e13, -1e14, -1e15, -1e16, -1e17, -1e18, -1e19, -1e20, -1e21}};
    // From element n on: 16 bytes, the last n of them set, and only the one before those.
    static constexpr signed char kLast[kMostDecimals + 16] = {
        0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1};
    static constexpr signed char kBeforeLast[kMostDecimals + 16] = {0, 0, 0, 0, 0, 0, 0, 0,
                                                                    0, 0, 0, 0, 0, 0, 0, -1};

    std::size_t exponent = 0;
    if (end[-4] == 'e' && end[-3] == '-' && end[-2] == '0' && isDigit(end[-1]))
    {
        exponent = static_cast<std::size_t>(end[-1] - '0');
        end -= 4;
    }
    const std::size_t sign = *token == '-' ? 1 : 0;
    const std::size_t decimals = static_cast<std::size_t>(end - token) - sign - 2;
    if (decimals - 1 >= kMostDecimals || token[sign + 1] != '.')
        return false;
    // The digit before the point goes where the point is.
    const __m128i zero = _mm_set1_epi8('0');
    const __m128i behindPoint = _mm_and_si128(_mm_sub_epi8(load(end - 16), zero), load(kLast + decimals));
    const __m128i first = _mm_and_si128(_mm_sub_epi8(load(end - 17), zero), load(kBeforeLast + decimals));
    number.digits = _mm_or_si128(behindPoint, first);
    number.divisor = kDivisors[sign][decimals + exponent];
    return true;
}

bool areDigits(__m128i values)
{
    return maskOf(_mm_cmpeq_epi8(_mm_min_epu8(values, _mm_set1_epi8(9)), values)) == 0xFFFF;
}

/// Joins each four digits.
__m128i joinFours(__m128i digits)
{
    // The upper byte of first + 256 * second, times 1 + 256 * 10, is second + 10 * first.
    const __m128i pairs = _mm_srli_epi16(_mm_mullo_epi16(digits, _mm_set1_epi16(10 * 256 + 1)), 8);
    return _mm_madd_epi16(pairs, _mm_set1_epi32(100 | (1 << 16)));
}

/// The two values, and two zeros.
__m128 valuesOf(const SShortNumber& a, const SShortNumber& b)
{
    const __m128i fours = _mm_packs_epi32(joinFours(a.digits), joinFours(b.digits));
    const __m128i eights = _mm_madd_epi16(fours, _mm_set1_epi32(10000 | (1 << 16)));
    const __m128d eightsOfA = _mm_cvtepi32_pd(eights);
    const __m128d eightsOfB = _mm_cvtepi32_pd(_mm_unpackhi_epi64(eights, eights));
    const __m128d upper = _mm_unpacklo_pd(eightsOfA, eightsOfB);
    const __m128d lower = _mm_unpackhi_pd(eightsOfA, eightsOfB);
    const __m128d digits = _mm_add_pd(_mm_mul_pd(upper, _mm_set1_pd(1e8)), lower);
    return _mm_cvtpd_ps(_mm_div_pd(digits, _mm_set_pd(b.divisor, a.divisor)));
}

constexpr std::ptrdiff_t kWindow = 64;

/// Bit i tells whether byte i of the window is a blank.
std::uint64_t blanksIn(const char* window)
{
    std::uint64_t blanks = 0;
    for (int i = 0; i < kWindow; i += 16)
        blanks |= std::uint64_t{maskOf(_mm_cmpeq_epi8(load(window + i), _mm_set1_epi8(' ')))} << i;
    return blanks;
}

/// Reads four tokens of the short form. A window gives their ends at once, so none waits for the one before.
/// @param token the first; kWindow bytes from there and kRoomBefore before can be read
/// @return behind the last; null where there are not four of that form, with one blank between each two
const char* parseFour(const char* token, const char* end, float* values)
{
    std::uint64_t ends = blanksIn(token);
    if (end - token < kWindow)
    {
        const std::uint64_t listEnd = std::uint64_t{1} << (end - token);
        ends = (ends & (listEnd - 1)) | listEnd;
    }
    const char* const window = token;
    const char* tokenEnd = token;
    SShortNumber numbers[4];
    __m128i largest = _mm_setzero_si128();
#pragma GCC unroll 4
    for (SShortNumber& number : numbers)
    {
        if (ends == 0)
            return nullptr;
        tokenEnd = window + std::countr_zero(ends);
        if (!readShort(token, tokenEnd, number))
            return nullptr;
        largest = _mm_max_epu8(largest, number.digits);
        ends &= ends - 1;
        token = tokenEnd + 1;
    }
    if (!areDigits(largest))
        return nullptr;
    const __m128 lower = valuesOf(numbers[0], numbers[1]);
    _mm_storeu_ps(values, _mm_movelh_ps(lower, valuesOf(numbers[2], numbers[3])));
    return tokenEnd;
}

/// Reads tokens as long as parseFour() finds four.
/// @return the token after them, or the blank before it if there are several
const char* parseFours(const char* token, const char* end, const char* readableTo, float* values,
                       std::size_t& count, std::size_t capacity)
{
    while (readableTo - token >= kWindow && capacity - count >= 4)
    {
        const char* const behind = parseFour(token, end, values + count);
        if (behind == nullptr)
            break;
        count += 4;
        token = behind == end ? end : behind + 1;
    }
    return token;
}

/// Reads any token.
/// @return behind it
const char* parseOne(const char* token, const char* end, bool roomBefore, float& value)
{
    const char* const behind = std::find_if(token, end, [](char c) { return c == '\0' || isSeparator(c); });
    SShortNumber number;
    if (roomBefore && readShort(token, behind, number) && areDigits(number.digits))
        value = _mm_cvtss_f32(valuesOf(number, number));
    else
        value = static_cast<float>(parseToken(token, behind));
    return behind;
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
    const char* text = list.data();
    const char* end = text + list.size();
    while (end != text && isSeparator(end[-1]))
        --end;
    const char* const readableTo = around.data() + around.size();
    std::size_t count = 0;
    for (;;)
    {
        while (text != end && isSeparator(*text))
            ++text;
        if (text == end || *text == '\0' || count == capacity)
            return count;
        const bool roomBefore = text - around.data() >= kRoomBefore;
        const char* const token = text;
        if (roomBefore)
            text = parseFours(token, end, readableTo, values, count, capacity);
        if (text == token)
            text = parseOne(token, end, roomBefore, values[count++]);
    }
}

} // namespace korvo::parser
