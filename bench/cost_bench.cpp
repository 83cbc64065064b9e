// SPDX-License-Identifier: GPL-3.0-or-later
// How the cost of a block grows: time per frame and channel of a whole krv_process(), one thing varied at a
// time.
#include <benchmark/benchmark.h>

#include <string>

#include "bench/processor_stream.h"

namespace {

struct SCost
{
    unsigned taps = 480;
    unsigned sections = 16;
    unsigned channels = 2;
    unsigned rate = 48000;
    unsigned frames = 256;
};

void measure(benchmark::State& state, const SCost& cost)
{
    const unsigned base = cost.rate <= 96000 ? cost.rate : cost.rate % 96000 == 0 ? 96000 : 88200;
    const korvobench::CFilterFile filter(cost.channels, {base, cost.rate}, cost.taps, cost.sections);
    korvobench::CStream stream(korvobench::ourLibrary(), filter, cost.rate, cost.channels, cost.frames);
    for (auto _ : state)
        stream.processNoise();
    state.counters["frame"] =
        benchmark::Counter(static_cast<double>(state.iterations()) * cost.channels * cost.frames,
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

bool registerCost(const std::string& varied, const SCost& cost)
{
    benchmark::RegisterBenchmark(("cost/" + varied).c_str(), [cost](benchmark::State& state) {
        measure(state, cost);
    })->MinTime(0.05);
    return true;
}

[[maybe_unused]] const bool s_registered = [] {
    registerCost("reference", {});
    for (const unsigned taps : {64U, 128U, 256U, 1024U, 4096U})
        registerCost("taps/" + std::to_string(taps), {.taps = taps});
    for (const unsigned sections : {1U, 4U, 8U, 32U})
        registerCost("sections/" + std::to_string(sections), {.sections = sections});
    for (const unsigned channels : {1U, 4U, 8U})
        registerCost("channels/" + std::to_string(channels), {.channels = channels});
    for (const unsigned rate : {96000U, 192000U, 384000U})
        registerCost("rate/" + std::to_string(rate), {.rate = rate});
    for (const unsigned frames : {16U, 64U, 1024U, 4096U})
        registerCost("frames/" + std::to_string(frames), {.frames = frames});
    return true;
}();

} // namespace
