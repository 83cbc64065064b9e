// SPDX-License-Identifier: GPL-3.0-or-later
#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "bench/processor_stream.h"
#include "bench/ratio.h"

namespace {

using namespace korvobench;
using Clock = std::chrono::steady_clock;

constexpr unsigned kFrames = 64;
constexpr unsigned kTaps = 480;
constexpr unsigned kSections = 16;

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double overPlainBuild(unsigned channels, unsigned rate, const std::vector<unsigned>& rates)
{
    const CFilterFile filter(channels, rates, kTaps, kSections);
    CStream ours(ourLibrary(), filter, rate, channels, kFrames);
    CStream plain(plainLibrary(), filter, rate, channels, kFrames);
    return speedUp([&] { ours.processNoise(); }, [&] { plain.processNoise(); });
}

/// 99th percentile over median of the time of a block, while filters are exchanged under the audio thread.
double tail()
{
    constexpr double kSeconds = 20.0;
    const CFilterFile filter(2, {48000}, kTaps, kSections);
    CStream stream(ourLibrary(), filter, 48000, 2, kFrames);
    std::atomic<bool> stop{false};
    std::atomic<bool> stopped{false};
    std::thread control([&] {
        for (unsigned turn = 0; !stop; ++turn)
        {
            ourLibrary().setFilterOperatingMode(stream.handle(), 1 + turn % 2);
            std::this_thread::sleep_for(std::chrono::milliseconds(250));
        }
        stopped = true;
    });
    std::vector<double> times;
    times.reserve(8000000);
    const auto start = Clock::now();
    while (secondsSince(start) < kSeconds && times.size() < times.capacity())
    {
        const auto begun = Clock::now();
        stream.processNoise();
        times.push_back(secondsSince(begun));
    }
    stop = true;
    while (!stopped) // an exchange that is under way needs blocks, or it waits for a second
        stream.processSilence();
    control.join();
    std::sort(times.begin(), times.end());
    return times[times.size() * 99 / 100] / times[times.size() / 2];
}

/// Time of a block of silence over time of a block of signal, once the sections have rung down to the
/// smallest numbers that there are.
double silenceOverSignal()
{
    const CFilterFile filter(2, {48000}, kTaps, kSections);
    CStream stream(ourLibrary(), filter, 48000, 2, kFrames);
    for (int i = 0; i < 1000; ++i)
        stream.processNoise();
    const double signal = secondsPerCall([&] { stream.processNoise(); });
    for (unsigned frame = 0; frame < 10 * 48000; frame += kFrames)
        stream.processSilence();
    return secondsPerCall([&] { stream.processSilence(); }) / signal;
}

/// Seconds of one load into a processor that has no filter yet.
double loadSeconds(const SLibrary& library, const CFilterFile& filter)
{
    krv_handle handle = nullptr;
    library.create(&handle, 8, kFrames, KRV_FORMAT_FLOAT32, KRV_FORMAT_FLOAT32);
    const auto start = Clock::now();
    library.loadFilterFromFile(handle, filter.path().c_str());
    const double seconds = secondsSince(start);
    library.destroy(handle);
    return seconds;
}

double loadOverPlainBuild()
{
    constexpr int kRounds = 15;
    const CFilterFile filter(8, {44100, 48000, 88200, 96000}, kTaps, kSections);
    std::vector<double> ratios;
    for (int round = 0; round < kRounds; ++round)
    {
        const double ours = loadSeconds(ourLibrary(), filter);
        ratios.push_back(loadSeconds(plainLibrary(), filter) / ours);
    }
    std::nth_element(ratios.begin(), ratios.begin() + kRounds / 2, ratios.end());
    return ratios[kRounds / 2];
}

[[maybe_unused]] const bool s_registered[] = {
    registerRow({"process/8x48000", "the build with plain loops", 1.8, 3.0},
                [] { return overPlainBuild(8, 48000, {48000}); }),
    registerRow({"process/2x192000", "the build with plain loops", 1.8, 3.0},
                [] {
                    return overPlainBuild(2, 192000, {96000, 192000});
                }),
    registerRow({"tail/p99", "the median block", 3.0, 1.5, EBetter::Smaller}, tail),
    registerRow({"load/8ch", "the build with all transforms", 5.0, 20.0}, loadOverPlainBuild),
    registerRow({"silence", "a block of signal", 2.0, 1.2, EBetter::Smaller}, silenceOverSignal),
};

} // namespace
