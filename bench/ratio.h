// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <functional>
#include <string>

/// Benchmarks whose result is a ratio. A machine that is shared and noisy makes times worthless and leaves
/// ratios usable, as long as both sides are measured in turns within one run.
namespace korvobench {

enum class EBetter
{
    Larger,
    Smaller
};

/// One row of the table that ends a run.
struct SRow
{
    std::string name;      ///< such as "kernel/1024"
    std::string yardstick; ///< what the ratio is measured against
    double floor = 0.0;    ///< worst acceptable value; 0 where there is none
    double aim = 0.0;      ///< value to reach; 0 where there is none
    EBetter better = EBetter::Larger;
};

/// Makes a row; `measure` gives its value when the benchmark runs. Use it to initialise a static.
bool registerRow(SRow row, std::function<double()> measure);

/// How often two pieces of work are timed against each other, and for how long each time.
struct SEffort
{
    int rounds = 15;
    double secondsPerRound = 0.02;
};

/// Time of `yardstick` over time of `subject`, both called in turns: the median over all rounds. Above 1, the
/// subject is the faster one. Each call of either must do the same amount of work.
double speedUp(const std::function<void()>& subject, const std::function<void()>& yardstick,
               SEffort effort = {});

/// Seconds that one call of `work` takes: the median over all rounds.
double secondsPerCall(const std::function<void()>& work, SEffort effort = {});

} // namespace korvobench
