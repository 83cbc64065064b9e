// SPDX-License-Identifier: GPL-3.0-or-later
#include "apps/krv/mic_calibration.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string_view>
#include <system_error>

#include "apps/krv/command.h"
#include "apps/krv/text.h"

namespace krv {

namespace {

constexpr std::string_view kBlanks = " \t\v\f";
constexpr std::string_view kSeparators = " \t,;\v\f";
constexpr std::string_view kLineEnds = "\r\n";
constexpr std::string_view kCommentMarks = "#*\"";
/// A calibration has some hundred lines; what is much longer was given by mistake.
constexpr std::size_t kMaxBytes = 16U << 20;

[[noreturn]] void refuseLine(const std::string& path, int line, const std::string& reason)
{
    throw CCommandError(kExitFailed, inQuotes(path) + " line " + std::to_string(line) + ": " + reason);
}

/// A piece of the file that is fit for a terminal.
std::string shown(std::string_view text)
{
    std::size_t most = 40;
    // Bytes of the form 10xxxxxx continue a character of UTF-8.
    while (most > 0 && most < text.size() && (static_cast<unsigned char>(text[most]) & 0xC0) == 0x80)
        --most;
    return inQuotes(std::string(text.substr(0, most)) + (text.size() > most ? "..." : ""));
}

/// Takes the next value off the front of `rest`, with the separators around it.
std::string_view takeField(std::string_view& rest)
{
    const std::size_t begin = std::min(rest.find_first_not_of(kSeparators), rest.size());
    const std::size_t end = std::min(rest.find_first_of(kSeparators, begin), rest.size());
    const std::string_view field = rest.substr(begin, end - begin);
    rest.remove_prefix(std::min(rest.find_first_not_of(kSeparators, end), rest.size()));
    return field;
}

std::optional<float> toNumber(std::string_view field)
{
    if (field.size() > 1 && field[0] == '+' && field[1] != '-')
        field.remove_prefix(1);
    float value = 0.0F;
    const auto [end, error] = std::from_chars(field.data(), field.data() + field.size(), value);
    if (error != std::errc() || end != field.data() + field.size() || !std::isfinite(value))
        return std::nullopt;
    return value;
}

/// True for "20,5 <tab> -1,2" and "20,5;-1,2": a comma right between two digits, in a line whose values are
/// kept apart by something else, would silently be read as two columns. Who writes decimal points has no
/// decimal commas.
bool hasDecimalComma(std::string_view line)
{
    const auto isDigit = [&](std::size_t i) { return i < line.size() && line[i] >= '0' && line[i] <= '9'; };
    bool betweenDigits = false;
    for (std::size_t i = 1; i < line.size(); ++i)
        betweenDigits = betweenDigits || (line[i] == ',' && isDigit(i - 1) && isDigit(i + 1));
    return betweenDigits && line.find('.') == std::string_view::npos &&
           line.find_first_of(" \t;") != std::string_view::npos;
}

/// Takes the next line off the front of `rest`. Lines end with \n, \r\n, or, on old machines, \r.
std::string_view takeLine(std::string_view& rest)
{
    const std::string_view line = rest.substr(0, rest.find_first_of(kLineEnds));
    rest.remove_prefix(line.size());
    rest.remove_prefix(rest.starts_with("\r\n") ? 2 : std::min<std::size_t>(1, rest.size()));
    return line;
}

/// The line without its comment and the blanks around what is left.
std::string_view contentOf(std::string_view line)
{
    for (std::size_t mark = line.find_first_of(kCommentMarks); mark != std::string_view::npos;
         mark = line.find_first_of(kCommentMarks, mark + 1))
    {
        if (mark == 0 || kSeparators.find(line[mark - 1]) != std::string_view::npos)
            line = line.substr(0, mark);
    }
    line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
    line.remove_suffix(line.size() - (line.find_last_not_of(kBlanks) + 1));
    return line;
}

SMicPoint parseLine(std::string_view line, int number, const std::string& path)
{
    if (hasDecimalComma(line))
        refuseLine(path, number,
                   shown(line) +
                       " has commas between digits beside other separators; a decimal point is needed, and a "
                       "comma may only stand between columns");
    SMicPoint point;
    point.line = number;
    std::string_view rest = line;
    for (float* target : {&point.frequency, &point.level})
    {
        const std::string_view field = takeField(rest);
        const std::optional<float> value = toNumber(field);
        const std::string wanted = target == &point.frequency ? "a frequency in Hz" : "a level in dB";
        if (!value)
            refuseLine(path, number,
                       (field.empty() ? std::string("a value is missing") : shown(field) + " is no number") +
                           "; " + wanted + " is needed, or a comment after #, * or \"");
        *target = *value;
    }
    return point;
}

/// The whole file. What is not a file (a device, a pipe) is read no further than one may be long.
std::string readText(const std::string& path)
{
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored))
        throw CCommandError(kExitFailed, inQuotes(path) + " is a folder, not a text file");
    std::ifstream file(path, std::ios::binary);
    std::string text(kMaxBytes + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!file.is_open() || file.bad())
        throw CCommandError(kExitFailed, inQuotes(path) + " cannot be read: " + std::strerror(errno));
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > kMaxBytes)
        throw CCommandError(kExitFailed,
                            inQuotes(path) + " is longer than the 16 MiB that a calibration may have");
    return text;
}

std::string describe(const SMicPoint& point, float value, const char* unit)
{
    return "line " + std::to_string(point.line) + ": " +
           formatted("%g %s ", static_cast<double>(value), unit);
}

} // namespace

std::vector<SMicPoint> readMicPoints(const std::string& path)
{
    const std::string text = readText(path);
    std::string_view rest = text;
    if (rest.starts_with("\xFF\xFE") || rest.starts_with("\xFE\xFF"))
        throw CCommandError(kExitFailed, inQuotes(path) + " is in UTF-16; plain text or UTF-8 is needed");
    if (rest.starts_with("\xEF\xBB\xBF"))
        rest.remove_prefix(3);
    std::vector<SMicPoint> points;
    for (int number = 1; !rest.empty(); ++number)
    {
        const std::string_view line = contentOf(takeLine(rest));
        if (!line.empty())
            points.push_back(parseLine(line, number, path));
    }
    return points;
}

std::string brokenMicRule(const std::vector<SMicPoint>& points)
{
    if (points.size() < 8)
        return "there " + std::string(points.size() == 1 ? "is " : "are ") + counted(points.size(), "point") +
               (points.empty() ? "" : ", the last in line " + std::to_string(points.back().line)) +
               "; at least 8 are needed";
    for (std::size_t i = 1; i < points.size(); ++i)
    {
        if (!(points[i].frequency > points[i - 1].frequency))
            return describe(points[i], points[i].frequency, "Hz") +
                   formatted("follows %g Hz; frequencies must rise from line to line",
                             static_cast<double>(points[i - 1].frequency));
    }
    const SMicPoint& first = points.front();
    if (first.frequency < 0.0F || first.frequency > 5000.0F)
        return describe(first, first.frequency, "Hz") + "is the first frequency, which may be 0 to 5000 Hz";
    const SMicPoint& last = points.back();
    if (last.frequency < 10000.0F || last.frequency > 192000.0F)
        return describe(last, last.frequency, "Hz") +
               "is the last frequency, which may be 10000 to 192000 Hz";
    const auto [lowest, highest] =
        std::minmax_element(points.begin(), points.end(),
                            [](const SMicPoint& a, const SMicPoint& b) { return a.level < b.level; });
    if (highest->level < -100.0F || highest->level > 100.0F)
        return describe(*highest, highest->level, "dB") + "is the highest level, which may be -100 to 100 dB";
    if (lowest->level < -200.0F)
        return describe(*lowest, lowest->level, "dB") + "is the lowest level, which may be -200 to 100 dB";
    return "";
}

} // namespace krv
