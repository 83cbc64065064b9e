// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <array>

#include "toolbox/delay_search.h"

namespace korvotoolbox {

/// For each position, counted from `first`, what neither of its two scores exceeds. Costs far less than the
/// scores themselves and rules most positions out: a sum of N magnitudes is at most
///
///     sqrt(N * sum |S(k) + P(k)|^2) = sqrt(N * (sum |S(k)|^2 + N gain^2 +- 2 gain c(i)))
///
/// where c(i) is the filter, band-passed, at position i. Infinite where the filter is too long to tell.
std::array<double, kMaxPositions> scoreBounds(const SDelaySearch& search);

} // namespace korvotoolbox
