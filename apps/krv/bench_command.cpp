// SPDX-License-Identifier: GPL-3.0-or-later
#include <CLI/CLI.hpp>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <memory>
#include <random>

#include "apps/krv/command.h"
#include "apps/krv/option_checks.h"
#include "apps/krv/processor.h"
#include "apps/krv/text.h"
#include "apps/krv/time_statistics.h"

namespace krv {

namespace {

constexpr std::uint32_t kBlockFrames[] = {16, 64, 256, 1024};

struct SBenchRequest
{
    std::string filter;
    std::uint32_t mode = 1;
    std::uint32_t channels = 0; ///< 0: as many as the filter has
    double seconds = 0.2;       ///< for each rate and block size
    bool json = false;
};

struct SBenchRow
{
    SStreamRate stream;
    std::uint32_t blockFrames = 0;
    CTimeStatistics times;

    /// A time per block as the share of one core that real time takes.
    double share(double seconds) const { return seconds * stream.rate / blockFrames; }
};

/// White noise at a level of music; silence would be no load to a recursive filter.
std::vector<float> makeNoise(std::size_t samples)
{
    std::minstd_rand random(1);
    std::uniform_real_distribution<float> distribution(-0.2F, 0.2F);
    std::vector<float> noise(samples);
    std::generate(noise.begin(), noise.end(), [&] { return distribution(random); });
    return noise;
}

SBenchRow measure(CProcessor& processor, const SBenchRequest& request, std::uint32_t rate,
                  std::uint32_t blockFrames)
{
    using Clock = std::chrono::steady_clock;
    constexpr std::uint64_t kFewestBlocks = 100;
    SBenchRow row{processor.start(rate, request.filter), blockFrames, {}};
    const std::vector<float> noise = makeNoise(std::size_t{blockFrames} * request.channels);
    std::vector<float> out(noise.size());
    for (std::uint64_t block = 0; block < kFewestBlocks; ++block) // caches and clocks warm up
        processor.process(noise.data(), out.data(), blockFrames);
    const auto end = Clock::now() + std::chrono::duration<double>(request.seconds);
    while (row.times.count() < kFewestBlocks || Clock::now() < end)
    {
        const auto start = Clock::now();
        processor.process(noise.data(), out.data(), blockFrames);
        row.times.add(Clock::now() - start);
    }
    return row;
}

void printTableHead(const SBenchRequest& request, const std::string& name)
{
    std::cout << inQuotes(name) << ", mode " << request.mode << ", " << counted(request.channels, "channel")
              << ": time per block as a share of real time on one core\n"
              << "    rate  block   median     99 %   maximum   median time\n";
}

void printTableRow(const SBenchRow& row)
{
    std::cout << formatted("  %6u  %5u  %6.2f%%  %6.2f%%  %7.2f%%   %8.1f us%s", row.stream.rate,
                           row.blockFrames, 100.0 * row.share(row.times.median()),
                           100.0 * row.share(row.times.percentile99()),
                           100.0 * row.share(row.times.maximum()), 1e6 * row.times.median(),
                           row.stream.isTwoBand() ? "  two-band" : "")
              << std::endl; // so that the table grows before the user's eyes
}

std::string jsonText(const std::string& text)
{
    std::string json = "\"";
    for (const char letter : text)
    {
        if (letter == '"' || letter == '\\')
            json += std::string("\\") + letter;
        else if (static_cast<unsigned char>(letter) < 0x20)
            json += formatted("\\u%04x", static_cast<unsigned>(letter));
        else
            json += letter;
    }
    return json + "\"";
}

void printJson(const SBenchRequest& request, const std::string& name, const std::vector<SBenchRow>& rows)
{
    std::cout << "{\"filter\": " << jsonText(name) << ", \"mode\": " << request.mode
              << ", \"channels\": " << request.channels << ", \"rows\": [";
    const char* separator = "\n";
    for (const SBenchRow& row : rows)
    {
        const auto& times = row.times;
        std::cout << separator
                  << formatted("  {\"rate\": %u, \"baseRate\": %u, \"block\": %u, \"blocks\": %llu,",
                               row.stream.rate, row.stream.baseRate, row.blockFrames,
                               static_cast<unsigned long long>(times.count()))
                  << formatted(" \"medianSeconds\": %.4g, \"p99Seconds\": %.4g, \"maxSeconds\": %.4g,",
                               times.median(), times.percentile99(), times.maximum())
                  << formatted(" \"medianShare\": %.4g, \"p99Share\": %.4g, \"maxShare\": %.4g}",
                               row.share(times.median()), row.share(times.percentile99()),
                               row.share(times.maximum()));
        separator = ",\n";
    }
    std::cout << "\n]}\n";
}

std::uint32_t filterChannels(const std::string& filter)
{
    CProcessor processor(SBlockForm{.channels = KRV_MAX_CHANNELS});
    processor.load(filter);
    return std::max<std::uint32_t>(1, static_cast<std::uint32_t>(processor.routing().size()));
}

void run(SBenchRequest request)
{
    if (request.channels == 0)
        request.channels = filterChannels(request.filter);
    CProcessor processor(SBlockForm{.channels = request.channels, .frames = *std::rbegin(kBlockFrames)});
    processor.load(request.filter);
    processor.requireMode(request.mode);
    if (!request.json)
        printTableHead(request, processor.filterName());
    std::vector<SBenchRow> rows;
    for (const std::uint32_t rate : processor.rates())
    {
        for (const std::uint32_t blockFrames : kBlockFrames)
        {
            rows.push_back(measure(processor, request, rate, blockFrames));
            if (!request.json)
                printTableRow(rows.back());
        }
    }
    if (request.json)
        printJson(request, processor.filterName(), rows);
}

} // namespace

void addBenchCommand(CLI::App& program)
{
    CLI::App* command = program.add_subcommand("bench", "Times a filter at every rate that it offers");
    const auto request = std::make_shared<SBenchRequest>();
    command
        ->add_option("FILTER", request->filter,
                     "Path of a filter document, or index or name from 'krv filters'")
        ->required();
    command->add_option("--mode", request->mode, "1: the filter's standard sets, 2: its minimum-phase sets")
        ->type_name("MODE")
        ->check(oneOf({"1", "2"}))
        ->capture_default_str();
    command
        ->add_option("--channels", request->channels,
                     "Channels of the stream, 1 to 8; else as many as the filter has")
        ->type_name("COUNT")
        ->check(wholeNumber(KRV_MIN_CHANNELS, KRV_MAX_CHANNELS));
    command->add_option("--seconds", request->seconds, "Time spent on each rate and block size, 0.001 to 60")
        ->type_name("SECONDS")
        ->check(number([](float seconds) { return seconds >= 0.001F && seconds <= 60.0F; },
                       "a number of seconds from 0.001 to 60"))
        ->capture_default_str();
    command->add_flag("--json", request->json, "Prints JSON for other programs");
    command->callback([request] { run(*request); });
}

} // namespace krv
