// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace korvobench {

/// What this machine reaches at best without fusing multiply-adds: its widest vectors, all operands in
/// registers, enough independent sums to hide every latency.
struct SPeakLoop
{
    void (*run)();
    double multiplyAdds; ///< per call
};

SPeakLoop multiplyAddPeak();

} // namespace korvobench
