// SPDX-License-Identifier: GPL-3.0-or-later
#include "bench/table.h"

#include <algorithm>
#include <iomanip>
#include <string>

namespace korvobench {

namespace {

const char* verdict(const SRow& row, double value)
{
    const auto reaches = [&](double bound) {
        return row.better == EBetter::Larger ? value >= bound : value <= bound;
    };
    if (row.floor == 0.0 && row.aim == 0.0)
        return "";
    if (row.floor != 0.0 && !reaches(row.floor))
        return "BELOW FLOOR";
    return row.aim != 0.0 && reaches(row.aim) ? "aim reached" : "ok";
}

void printBound(std::ostream& out, double bound)
{
    out << std::setw(8);
    if (bound == 0.0)
        out << "-";
    else
        out << bound;
}

} // namespace

void CResultTable::add(const SRow& row, double value)
{
    m_results.push_back({row, value});
}

void CResultTable::print(std::ostream& out) const
{
    std::size_t width = 4;
    for (const SResult& result : m_results)
        width = std::max(width, result.row.name.size());
    const auto column = static_cast<int>(width) + 2;
    out << std::left << std::setw(column) << "row" << std::right << std::setw(10) << "ratio" << std::setw(8)
        << "floor" << std::setw(8) << "aim"
        << "  " << std::left << std::setw(13) << ""
        << "against\n";
    for (const SResult& result : m_results)
    {
        out << std::left << std::setw(column) << result.row.name << std::right << std::fixed
            << std::setprecision(2) << std::setw(10) << result.value << std::defaultfloat
            << std::setprecision(6);
        printBound(out, result.row.floor);
        printBound(out, result.row.aim);
        out << "  " << std::left << std::setw(13) << verdict(result.row, result.value) << result.row.yardstick
            << '\n';
    }
}

void CResultTable::writeJson(std::ostream& out) const
{
    out << "{\n";
    const char* separator = "";
    for (const SResult& result : m_results)
    {
        out << separator << "  \"" << result.row.name << "\": {\"value\": " << result.value
            << ", \"unit\": \"x\"}";
        separator = ",\n";
    }
    out << "\n}\n";
}

CResultTable& resultTable()
{
    static CResultTable table;
    return table;
}

} // namespace korvobench
