// SPDX-License-Identifier: GPL-3.0-or-later
#include "apps/krv/filter_list.h"

#include <pwd.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "apps/krv/command.h"
#include "apps/krv/text.h"

namespace krv {

namespace {

namespace fs = std::filesystem;

fs::path homeFolder()
{
    if (const char* home = std::getenv("HOME"))
        return home;
    const passwd* user = getpwuid(getuid());
    return user != nullptr ? user->pw_dir : "/";
}

/// The value of a line NAME="$HOME/folder" of the desktop's folder list; empty if there is none.
std::string desktopFolder(const fs::path& home, const std::string& name)
{
    std::ifstream list(home / ".config/user-dirs.dirs");
    for (std::string line; std::getline(list, line);)
    {
        const std::size_t start = line.find_first_not_of(" \t");
        const std::size_t equals = line.find('=');
        if (start == std::string::npos || equals == std::string::npos ||
            line.compare(start, name.size(), name) != 0)
            continue;
        std::string value = line.substr(equals + 1);
        std::erase(value, '"');
        if (const std::size_t variable = value.find("$HOME"); variable != std::string::npos)
            value.replace(variable, 5, home.string());
        return value;
    }
    return {};
}

} // namespace

std::vector<std::string> listFilters(krv_handle handle)
{
    std::vector<std::string> names;
    for (;;)
    {
        std::array<char, 4096> name{};
        // One byte less than there is: a name that is cut is not terminated.
        const int status = krv_filters_enumerate(handle, static_cast<std::uint32_t>(names.size()),
                                                 name.data(), static_cast<std::uint32_t>(name.size() - 1));
        if (status == KRV_STATUS_NO_MORE_FILTERS)
            return names;
        if (status != KRV_STATUS_OK)
            throw CCommandError(kExitFailed,
                                "the filter folder " + inQuotes(filterFolder()) + " could not be listed");
        names.emplace_back(name.data());
    }
}

// The same place that the library looks at: it asks JUCE for the user's application data folder.
std::string filterFolder()
{
    const fs::path home = homeFolder();
    fs::path data = desktopFolder(home, "XDG_CONFIG_HOME");
    std::error_code ignored;
    if (data.empty() || !fs::is_directory(data, ignored))
        data = home / ".config";
    return (data / "Application Support/Korvo/Filters").string();
}

} // namespace krv
