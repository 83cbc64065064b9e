// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace krv {

/// A check of an option's text for CLI11, which puts the option's name before what it returns. CLI11's own
/// checks speak in type names; these say what would be accepted.
using OptionCheck = std::function<std::string(const std::string&)>;

/// A whole number, both ends included.
OptionCheck wholeNumber(int least, int most);

/// A number for which `accepts` holds. `wanted` says which these are, as in "a number above 0".
OptionCheck number(const std::function<bool(float)>& accepts, const std::string& wanted);

OptionCheck oneOf(const std::vector<std::string>& words);

} // namespace krv
