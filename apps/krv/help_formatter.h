// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace krv {

/// Help texts for a terminal of 80 columns: descriptions are broken between words, and the name of an option
/// is followed by what its value stands for, not by a type and a list of checks.
class CHelpFormatter : public CLI::Formatter
{
public:
    CHelpFormatter();

    std::string make_option_opts(const CLI::Option* option) const override;
    std::string make_option_desc(const CLI::Option* option) const override;
    std::string make_subcommand(const CLI::App* command) const override;

private:
    std::string broken(const std::string& text) const;
};

} // namespace krv
