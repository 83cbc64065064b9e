// SPDX-License-Identifier: GPL-3.0-or-later
#include "apps/krv/help_formatter.h"

#include <sstream>

namespace krv {

CHelpFormatter::CHelpFormatter()
{
    column_width(20);
    label("Positionals", "Arguments");
    label("SUBCOMMAND", "COMMAND");
}

// Which arguments are required is told by the line of usage.
std::string CHelpFormatter::make_option_opts(const CLI::Option* option) const
{
    const bool hasValue = option->get_type_size() != 0 && !option->get_positional();
    return hasValue ? " " + option->get_type_name() : "";
}

std::string CHelpFormatter::make_option_desc(const CLI::Option* option) const
{
    const std::string standard = option->get_default_str();
    return broken(option->get_description() + (standard.empty() ? "" : " (default: " + standard + ")"));
}

std::string CHelpFormatter::make_subcommand(const CLI::App* command) const
{
    std::ostringstream line;
    CLI::detail::format_help(line, command->get_name(), broken(command->get_description()), column_width_);
    return line.str();
}

/// The column is filled up behind each line end by CLI11.
std::string CHelpFormatter::broken(const std::string& text) const
{
    constexpr std::size_t kTerminalWidth = 80;
    const std::size_t width = kTerminalWidth - column_width_;
    std::istringstream words(text);
    std::string lines;
    std::size_t used = 0;
    for (std::string word; words >> word; used += word.size())
    {
        if (used > 0 && used + 1 + word.size() > width)
        {
            lines += '\n';
            used = 0;
        }
        if (used > 0)
        {
            lines += ' ';
            ++used;
        }
        lines += word;
    }
    return lines;
}

} // namespace krv
