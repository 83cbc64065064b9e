// SPDX-License-Identifier: GPL-3.0-or-later
#include <krv.h>

#include <CLI/CLI.hpp>

#include <iostream>
#include <memory>

#include "apps/krv/command.h"
#include "apps/krv/option_checks.h"
#include "apps/krv/render.h"
#include "apps/krv/text.h"

namespace krv {

namespace {

std::string milliseconds(double seconds)
{
    return formatted("%.3f ms", seconds * 1e3);
}

std::string latencyText(const SRenderReport& report, bool align)
{
    if (!report.latencyFrames)
        return "unknown";
    const std::uint64_t frames = *report.latencyFrames + report.stream.bandDelay;
    std::string text = counted(frames, "frame") + " (" +
                       formatted("%.2f ms", 1e3 * static_cast<double>(frames) / report.stream.rate);
    if (report.stream.isTwoBand())
        text += ", " + std::to_string(report.stream.bandDelay) + " of them from the two bands";
    return text + ")" + (align ? ", taken off" : "");
}

std::string clippingText(const SRenderReport& report)
{
    if (report.outputFormat == ESampleFormat::Float)
        return "none, float does not clip";
    if (report.clippedBlocks == 0)
        return "none of " + std::to_string(report.blocks);
    return std::to_string(report.clippedBlocks) + " of " + std::to_string(report.blocks) +
           "; --gain takes the level down";
}

void printChannels(const SRenderReport& report)
{
    if (report.filterChannels == 0 || report.filterChannels == report.channels)
        return;
    std::cout << "  channels   " << report.channels << " in the file, " << report.filterChannels
              << " in the filter; the others "
              << (report.filterChannels > report.channels ? "are not used\n" : "pass unfiltered\n");
}

void printSummary(const SRenderRequest& request, const SRenderReport& report)
{
    const double seconds = static_cast<double>(report.frames) / report.stream.rate;
    const double blockSeconds = static_cast<double>(report.blockFrames) / report.stream.rate;
    std::cout << printable(request.output) << ": " << printable(request.input) << " through "
              << inQuotes(report.filterName) << ", mode " << request.mode << '\n'
              << "  frames     " << report.frames << formatted(" (%.2f s), ", seconds)
              << counted(report.channels, "channel") << ", " << sampleFormatName(report.inputFormat) << " to "
              << sampleFormatName(report.outputFormat) << '\n'
              << "  rate       " << report.stream.rate << " Hz, " << pathName(report.stream) << '\n'
              << "  latency    " << latencyText(report, request.align) << '\n';
    printChannels(report);
    std::cout << "  clipped    " << clippingText(report) << '\n'
              << "  per block  median " << milliseconds(report.blockTimes.median()) << ", 99 % "
              << milliseconds(report.blockTimes.percentile99()) << ", maximum "
              << milliseconds(report.blockTimes.maximum()) << '\n'
              << "             of the " << milliseconds(blockSeconds) << " that " << report.blockFrames
              << " frames last\n";
}

void run(const SRenderRequest& request)
{
    const SRenderReport report = render(request);
    if (!request.quiet)
        printSummary(request, report);
}

} // namespace

void addRenderCommand(CLI::App& program)
{
    CLI::App* command = program.add_subcommand("render", "Corrects an audio file through a filter");
    const auto request = std::make_shared<SRenderRequest>();
    const auto format = std::make_shared<std::string>("same");
    command
        ->add_option("FILTER", request->filter,
                     "Path of a filter document, or index or name from 'krv filters'")
        ->required();
    command->add_option("IN", request->input, "Audio file to correct; anything that libsndfile reads")
        ->required();
    command->add_option("OUT", request->output, "File to write, in .wav, .flac, .aiff, .aif or .w64")
        ->required();
    command->add_option("--mode", request->mode, "1: the filter's standard sets, 2: its minimum-phase sets")
        ->type_name("MODE")
        ->check(oneOf({"1", "2"}))
        ->capture_default_str();
    command->add_option("--block", request->blockFrames, "Frames per block, 16 to 4096")
        ->type_name("FRAMES")
        ->check(wholeNumber(KRV_MIN_BLOCK_FRAMES, KRV_MAX_BLOCK_FRAMES))
        ->capture_default_str();
    command->add_option("--gain", request->gainDb, "Overall gain in dB, 0 or below: it only attenuates")
        ->type_name("DB")
        ->check(number([](float decibels) { return decibels <= 0.0F; },
                       "0 dB or less (the gain only attenuates)"));
    command
        ->add_option("--format", *format,
                     "Sample format of OUT: int16, int24, int32, float, or same, the one of IN")
        ->type_name("FORMAT")
        ->check(oneOf({"int16", "int24", "int32", "float", "same"}))
        ->capture_default_str();
    command->add_flag("--align", request->align,
                      "Takes the latency off, so that OUT starts and ends as IN does");
    command->add_flag("--quiet", request->quiet, "Prints nothing unless something is wrong");
    command->callback([request, format] {
        for (const ESampleFormat candidate : kSampleFormats)
        {
            if (sampleFormatName(candidate) == *format)
                request->format = candidate;
        }
        run(*request);
    });
}

} // namespace krv
