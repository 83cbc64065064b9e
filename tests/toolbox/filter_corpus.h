// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <random>
#include <string>
#include <vector>

namespace korvotest {

struct SCorpusFilter
{
    std::string kind;
    std::vector<float> taps;
};

/// `count` impulse responses as correction filters have them, of every kind in turn: measured-looking,
/// minimum phase, linear phase, pure fractional delay, noise; of each kind also inverted and noisy ones.
std::vector<SCorpusFilter> makeFilterCorpus(std::mt19937& random, int count);

} // namespace korvotest
