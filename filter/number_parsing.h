// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstddef>
#include <string_view>

/// Numbers of a filter document. They read the same whatever locale the host has set.
namespace korvo::parser {

/// What atoi() gives. Where atoi() leaves the result open, beyond the range of int, the nearest int.
int parseInteger(const char* text);

/// What atof() gives in the C locale, narrowed to single precision.
float parseNumber(const char* text);

/// Reads a list whose tokens are separated by '[', ']' and ' ' and by nothing else: each gives what atof()
/// gives in the C locale, narrowed to single precision. Ends with the list, at a zero byte in it, or at token
/// number capacity + 1, which is left unread.
/// @param list   followed by a zero byte or '<'
/// @param around memory around the list that can be read as well; 17 bytes before it and 64 from each token
/// on help speed
/// @return the number of values stored
std::size_t parseNumberList(std::string_view list, std::string_view around, float* values,
                            std::size_t capacity);

} // namespace korvo::parser
