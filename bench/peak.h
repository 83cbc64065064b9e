// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace korvobench {

/// Multiply-adds per second that this machine reaches at best without fusing them: its widest vectors, all
/// operands in registers, enough independent sums to hide every latency.
double multiplyAddPeak();

} // namespace korvobench
