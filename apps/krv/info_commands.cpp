// SPDX-License-Identifier: GPL-3.0-or-later
#include <CLI/CLI.hpp>

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <memory>

#include "apps/krv/command.h"
#include "apps/krv/filter_list.h"
#include "apps/krv/processor.h"
#include "apps/krv/text.h"

namespace krv {

namespace {

std::string channelText(const std::vector<std::uint32_t>& routing)
{
    std::string text = std::to_string(routing.size()) + ", serving";
    for (std::size_t i = 0; i < routing.size(); ++i)
        text += (i == 0 ? " " : ", ") + std::to_string(routing[i]);
    return routing.empty() ? "not numbered" : text;
}

void printMode(CProcessor& processor, std::uint32_t mode)
{
    std::cout << "  mode " << mode << "    ";
    if (!processor.setMode(mode))
    {
        std::cout << "not in this document\n";
        return;
    }
    const float latency = processor.latencyMs();
    std::cout << rateList(processor.rates()) << '\n'
              << "            latency "
              << (latency < 0.0F ? "unknown" : formatted("%.2f ms", static_cast<double>(latency)))
              << ", maximum gain " << decibels(static_cast<double>(processor.maxGainDb()), 1) << '\n';
}

void printInfo(const std::string& filter)
{
    CProcessor processor(SBlockForm{.channels = KRV_MAX_CHANNELS});
    processor.load(filter);
    std::cout << printable(processor.filterName()) << '\n'
              << "  file      " << printable(processor.filterPath()) << '\n'
              << "  channels  " << channelText(processor.routing()) << '\n';
    printMode(processor, 1);
    printMode(processor, 2);
}

std::string folderState(const std::string& folder)
{
    if (access(folder.c_str(), R_OK | X_OK) == 0)
        return " holds none";
    return errno == ENOENT ? " is not there" : std::string(" cannot be read: ") + std::strerror(errno);
}

void printFilters()
{
    krv_handle handle = nullptr;
    if (krv_create(&handle, 1, KRV_MIN_BLOCK_FRAMES, KRV_FORMAT_FLOAT32, KRV_FORMAT_FLOAT32) != KRV_STATUS_OK)
        throw CCommandError(kExitFailed, "no processor could be made");
    const std::vector<std::string> names = listFilters(handle);
    krv_destroy(handle);
    for (std::size_t i = 0; i < names.size(); ++i)
        std::cout << formatted("%3zu  ", i) << printable(names[i]) << '\n';
    if (names.empty())
        std::cout << "no filters: " << filterFolder() << folderState(filterFolder()) << '\n';
}

} // namespace

void addFiltersCommand(CLI::App& program)
{
    program.add_subcommand("filters", "Lists the filters in your filter folder: index, name")
        ->callback(printFilters);
}

void addInfoCommand(CLI::App& program)
{
    CLI::App* command = program.add_subcommand("info", "Tells what a filter offers");
    const auto filter = std::make_shared<std::string>();
    command->add_option("FILTER", *filter, "Path of a filter document, or index or name from 'krv filters'")
        ->required();
    command->callback([filter] { printInfo(*filter); });
}

} // namespace krv
