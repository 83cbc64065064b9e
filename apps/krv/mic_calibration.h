// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <string>
#include <vector>

namespace krv {

/// One point of a microphone calibration file.
struct SMicPoint
{
    float frequency = 0.0F; ///< Hz
    float level = 0.0F;     ///< dB
    int line = 0;           ///< of the file, from 1
};

/// Reads the points of a microphone calibration file, as measurement programs write it: per line a frequency
/// and a level with a decimal point, between them blanks, tabs, commas or semicolons; further columns (a
/// phase) are passed over. '#', '*' and '"', at the start of a line or behind a separator, begin a comment
/// that goes to the end of the line; empty lines are skipped. A byte order mark of UTF-8 and any kind of line
/// end will do. Throws CCommandError for a file that cannot be read and for any other line.
std::vector<SMicPoint> readMicPoints(const std::string& path);

/// The first rule of a calibration that `points` break, with the line, as the middle of a sentence; empty if
/// none.
std::string brokenMicRule(const std::vector<SMicPoint>& points);

} // namespace krv
