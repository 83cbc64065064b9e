// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <ostream>
#include <vector>

#include "bench/ratio.h"

namespace korvobench {

/// The rows measured in this run, in the order of their measurement.
class CResultTable
{
public:
    void add(const SRow& row, double value);
    bool empty() const { return m_results.empty(); }

    /// The table for people: value, floor, aim and verdict per row.
    void print(std::ostream& out) const;
    /// The same for machines: {"row": {"value": 2.5, "unit": "x"}, ...}.
    void writeJson(std::ostream& out) const;

private:
    struct SResult
    {
        SRow row;
        double value;
    };
    std::vector<SResult> m_results;
};

CResultTable& resultTable();

} // namespace korvobench
