// SPDX-License-Identifier: GPL-3.0-or-later
#include <CLI/CLI.hpp>

#include <algorithm>
#include <iostream>
#include <memory>

#include "apps/krv/command.h"
#include "apps/krv/mic_calibration.h"
#include "apps/krv/text.h"
#include "toolbox/target_curve.h"

namespace krv {

namespace {

void run(const std::string& path)
{
    const std::vector<SMicPoint> points = readMicPoints(path);
    std::vector<korvotoolbox::targetBreakPointS> curve;
    for (const SMicPoint& point : points)
        curve.push_back({point.frequency, point.level});
    // The library has the verdict; the rule is only looked for where it refuses.
    if (!korvotoolbox::isValidMicCalibrationData(curve))
        throw CCommandError(kExitFailed,
                            inQuotes(path) + " is no valid calibration: " + brokenMicRule(points));
    const auto [lowest, highest] =
        std::minmax_element(points.begin(), points.end(),
                            [](const SMicPoint& a, const SMicPoint& b) { return a.level < b.level; });
    std::cout << printable(path) << ": valid microphone calibration, " << counted(points.size(), "point")
              << formatted(" from %g to %g Hz, %g to %g dB\n", static_cast<double>(points.front().frequency),
                           static_cast<double>(points.back().frequency), static_cast<double>(lowest->level),
                           static_cast<double>(highest->level));
}

} // namespace

void addMicCommand(CLI::App& program)
{
    CLI::App* command = program.add_subcommand("mic", "Checks a microphone calibration file");
    const auto path = std::make_shared<std::string>();
    command
        ->add_option("FILE", *path,
                     "Text with a frequency in Hz and a level in dB per line, rising in frequency from at "
                     "most 5000 Hz to at least 10000 Hz; comments after #, * or \"")
        ->required();
    command->callback([path] { run(*path); });
}

} // namespace krv
