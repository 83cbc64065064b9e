// SPDX-License-Identifier: GPL-3.0-or-later
#include "bench/ratio.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "bench/table.h"

namespace korvobench {

namespace {

double median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

double secondsFor(const std::function<void()>& work, long calls)
{
    const auto start = std::chrono::steady_clock::now();
    for (long i = 0; i < calls; ++i)
        work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Calls of `work` that fill about the given time; warms caches and clocks up on the way.
long callsFor(const std::function<void()>& work, double seconds)
{
    for (long calls = 1;; calls *= 2)
    {
        const double taken = secondsFor(work, calls);
        if (taken >= seconds / 4)
            return std::max(1L, static_cast<long>(static_cast<double>(calls) * seconds / taken));
    }
}

} // namespace

double speedUp(const std::function<void()>& subject, const std::function<void()>& yardstick, SEffort effort)
{
    const long subjectCalls = callsFor(subject, effort.secondsPerRound);
    const long yardstickCalls = callsFor(yardstick, effort.secondsPerRound);
    std::vector<double> ratios;
    for (int round = 0; round < effort.rounds; ++round)
    {
        const double subjectTime = secondsFor(subject, subjectCalls) / static_cast<double>(subjectCalls);
        const double yardstickTime =
            secondsFor(yardstick, yardstickCalls) / static_cast<double>(yardstickCalls);
        ratios.push_back(yardstickTime / subjectTime);
    }
    return median(ratios);
}

double secondsPerCall(const std::function<void()>& work, SEffort effort)
{
    const long calls = callsFor(work, effort.secondsPerRound);
    std::vector<double> times;
    for (int round = 0; round < effort.rounds; ++round)
        times.push_back(secondsFor(work, calls) / static_cast<double>(calls));
    return median(times);
}

bool registerRow(SRow row, std::function<double()> measure)
{
    const std::string name = row.name;
    benchmark::RegisterBenchmark(
        name.c_str(),
        [row = std::move(row), measure = std::move(measure)](benchmark::State& state) {
            for (auto _ : state)
            {
                const double value = measure();
                state.counters["x"] = value;
                resultTable().add(row, value);
            }
        })
        ->Iterations(1)
        ->Unit(benchmark::kSecond);
    return true;
}

} // namespace korvobench
