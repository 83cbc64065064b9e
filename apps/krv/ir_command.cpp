// SPDX-License-Identifier: GPL-3.0-or-later
#include <CLI/CLI.hpp>

#include <cmath>
#include <iostream>
#include <memory>

#include "apps/krv/audio_output.h"
#include "apps/krv/command.h"
#include "apps/krv/impulse_file.h"
#include "apps/krv/option_checks.h"
#include "apps/krv/text.h"
#include "toolbox/helpers.h"
#include "toolbox/impulse_response.h"

namespace krv {

namespace {

std::string linearAsDecibels(double linear)
{
    return decibels(20.0 * std::log10(linear), 2);
}

/// In double precision, which squares every float without overflow or underflow.
double rootMeanSquare(const std::vector<float>& channel)
{
    double sum = 0.0;
    for (const float sample : channel)
        sum += static_cast<double>(sample) * static_cast<double>(sample);
    return std::sqrt(sum / static_cast<double>(channel.size()));
}

/// The zero crossing next to the peak; -1 if there is none on that side.
int zeroCrossing(std::vector<float>& channel, int peak, bool before)
{
    const int length = static_cast<int>(channel.size());
    const auto at = [&](int index) { return channel[static_cast<std::size_t>(index)]; };
    const auto hasPeaksSign = [&](int index) {
        return at(peak) > 0.0F ? at(index) > 0.0F : at(index) < 0.0F;
    };
    int from = peak;
    // The search starts at index 1 at the earliest.
    if (!before && peak == 0 && length > 1)
    {
        if (!hasPeaksSign(1))
            return 1;
        from = 1;
    }
    const int found =
        korvotoolbox::findIdxOfZeroCrossingBeforeOrAfterIdx(channel.data(), length, from, before);
    // At the end of the response the search gives up with its last sample.
    return found == (before ? 0 : length - 1) && hasPeaksSign(found) ? -1 : found;
}

/// "4000  (83.333 ms)"
std::string place(int index, std::uint32_t rate)
{
    return index < 0 ? "none" : formatted("%d  (%.3f ms)", index, 1e3 * index / rate);
}

void printChannel(std::vector<float>& channel, std::uint32_t rate, float level)
{
    const int length = static_cast<int>(channel.size());
    const int peak = korvotoolbox::maxAbsIdx(channel.data(), length);
    const double value = static_cast<double>(channel[static_cast<std::size_t>(peak)]);
    if (value == 0.0)
    {
        std::cout << "    level             silent\n";
        return;
    }
    std::cout << "    level             " << linearAsDecibels(std::fabs(value)) << " peak, "
              << linearAsDecibels(rootMeanSquare(channel)) << " RMS\n"
              << "    peak              " << place(peak, rate) << formatted("  value %+.6g\n", value)
              << "    start, level      "
              << place(korvotoolbox::findIdxWhereAbsFirstExceeds(channel.data(), length, level), rate)
              << formatted("  first at %g of the peak\n", static_cast<double>(level))
              << "    start, threshold  "
              << place(korvotoolbox::findIdxOfDataStart(channel.data(), length), rate)
              << "  last below 0.01 before 0.07 of the peak\n"
              << "    zero crossings    " << place(zeroCrossing(channel, peak, true), rate) << " and "
              << place(zeroCrossing(channel, peak, false), rate) << " around the peak\n";
}

void printResponse(SImpulseFile& file, const SImpulseRequest& request)
{
    std::cout << printable(request.input) << ": " << counted(file.channels.size(), "channel") << ", "
              << file.rate << " Hz\n"
              << "  length  " << counted(static_cast<std::uint64_t>(file.frames), "frame")
              << formatted(" (%.3f ms)\n", 1e3 * file.frames / file.rate);
    for (std::size_t c = 0; c < file.channels.size(); ++c)
    {
        std::cout << "  channel " << c + 1 << '\n';
        printChannel(file.channels[c], file.rate, request.level);
    }
}

void printEdit(const SImpulseFile& file, const SImpulseRequest& request, int removed, bool startGiven)
{
    const bool shift = request.edit == EImpulseEdit::Shift;
    std::cout << printable(request.output) << ": " << (shift ? "shifted by " : "cut by ")
              << counted(static_cast<std::uint64_t>(removed), "frame")
              << formatted(" (%.3f ms)", 1e3 * removed / file.rate);
    if (file.channels.size() > 1)
        std::cout << " in all " << file.channels.size() << " channels";
    std::cout << ", "
              << counted(static_cast<std::uint64_t>(shift ? file.frames : file.frames - removed), "frame")
              << " long\n";
    if (startGiven && request.edit == EImpulseEdit::Trim)
        std::cout
            << "  --level and --margin had no say: without --filtered the two thresholds find the start\n";
}

/// The options as they were given.
struct SIrOptions
{
    SImpulseRequest request;
    bool trim = false;
    bool filtered = false;
    bool shift = false;
};

SImpulseRequest checkedRequest(const SIrOptions& options)
{
    const auto usage = [](bool wrong, const std::string& message) {
        if (wrong)
            throw CCommandError(kExitUsage, message);
    };
    SImpulseRequest request = options.request;
    usage(options.trim && options.shift, "--trim and --shift exclude each other; give one of them");
    usage(options.filtered && !options.trim,
          "--filtered chooses how --trim finds the start; give --trim as well");
    const bool edit = options.trim || options.shift;
    usage(edit && request.output.empty(), "--trim and --shift need an OUT to write to");
    usage(!edit && !request.output.empty(),
          "OUT: what to write to " + inQuotes(request.output) + " is not said; give --trim or --shift");
    if (options.shift)
        request.edit = EImpulseEdit::Shift;
    else if (options.trim)
        request.edit = options.filtered ? EImpulseEdit::TrimFiltered : EImpulseEdit::Trim;
    return request;
}

void run(const SImpulseRequest& request, bool startGiven)
{
    if (request.edit == EImpulseEdit::None)
    {
        SImpulseFile file = readImpulseFile(request.input);
        printResponse(file, request);
        return;
    }
    checkOutputName(request.output);
    requireTwoFiles(request.input, request.output);
    const SImpulseFile file = readImpulseFile(request.input);
    const int removed = framesToRemove(file, request);
    writeEdited(request, removed);
    printEdit(file, request, removed, startGiven);
}

} // namespace

void addIrCommand(CLI::App& program)
{
    CLI::App* command = program.add_subcommand(
        "ir", "Tells where an impulse response starts, and takes off what lies before");
    const auto options = std::make_shared<SIrOptions>();
    SImpulseRequest& request = options->request;
    command->add_option("IN", request.input, "Impulse response at 44100, 48000, 88200 or 96000 Hz")
        ->required();
    command->add_option(
        "OUT", request.output,
        "File to write, in .wav, .flac, .aiff, .aif or .w64. Samples of 16, 24 or 32 bits stay as they "
        "are; all others are written as 32-bit floats");
    command->add_flag(
        "--trim", options->trim,
        "Cuts the front, by default at the last sample below 0.01 of the peak that lies before the first "
        "at 0.07, which --level and --margin do not move. All channels lose as much as the one that "
        "starts first");
    command->add_flag(
        "--filtered", options->filtered,
        "With --trim: cuts --margin before --level is reached in a copy limited to 20 to 400 Hz");
    command->add_flag(
        "--shift", options->shift,
        "Moves the response to the front by what lies --margin before --level is reached, and keeps its "
        "length. All channels move as much as the one that starts first");
    command->add_option("--level", request.level, "Level of the start, as a fraction of the peak up to 1")
        ->type_name("FRACTION")
        ->check(number([](float level) { return level > 0.0F && level <= 1.0F; },
                       "a fraction of the peak above 0 and up to 1"))
        ->capture_default_str();
    command->add_option("--margin", request.margin, "Time kept before the start, in ms")
        ->type_name("MS")
        ->check(number([](float margin) { return margin >= 0.0F && std::isfinite(margin); },
                       "a finite number of milliseconds from 0 on"))
        ->capture_default_str();
    command->callback([options, command] {
        run(checkedRequest(*options), command->count("--level") + command->count("--margin") > 0);
    });
}

} // namespace krv
