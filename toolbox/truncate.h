// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <climits>

namespace korvotoolbox {

/// `value` without its fraction. What no int can hold becomes the nearest int; NaN becomes INT_MIN, which is
/// what the processor's own conversion makes of it and the language leaves undefined.
constexpr int truncateToInt(double value)
{
    if (value >= static_cast<double>(INT_MAX))
        return INT_MAX;
    if (value > static_cast<double>(INT_MIN))
        return static_cast<int>(value);
    return INT_MIN;
}

} // namespace korvotoolbox
