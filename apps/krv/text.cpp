// SPDX-License-Identifier: GPL-3.0-or-later
#include "apps/krv/text.h"

#include <cctype>
#include <cmath>
#include <cstdio>

namespace krv {

std::string formatted(const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    std::va_list again;
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    std::string text(static_cast<std::size_t>(length > 0 ? length : 0), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    va_end(arguments);
    return text;
}

std::string printable(std::string text)
{
    for (char& letter : text)
    {
        if (std::iscntrl(static_cast<unsigned char>(letter)) != 0)
            letter = '?';
    }
    return text;
}

std::string inQuotes(const std::string& text)
{
    return printable("'" + text + "'");
}

std::string rateList(const std::vector<std::uint32_t>& rates)
{
    std::string list;
    for (const std::uint32_t rate : rates)
        list += (list.empty() ? "" : ", ") + std::to_string(rate);
    return list + " Hz";
}

std::string sndfileReason(SNDFILE* file)
{
    std::string reason = sf_strerror(file);
    const std::string prefix = "System error : ";
    if (reason.starts_with(prefix))
        reason.erase(0, prefix.size());
    while (!reason.empty() &&
           (reason.back() == '.' || std::isspace(static_cast<unsigned char>(reason.back()))))
        reason.pop_back();
    return reason;
}

std::string decibels(double level, int digits)
{
    const double steps = std::pow(10.0, digits);
    // The sum turns a negative zero into a positive one.
    return formatted("%.*f dB", digits, std::round(level * steps) / steps + 0.0);
}

std::string counted(std::uint64_t count, const std::string& noun)
{
    return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

} // namespace krv
