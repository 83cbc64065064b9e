// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdlib>
#include <iostream>
#include <random>
#include <vector>

namespace korvotest {

/// A generator whose seed is printed when a test fails, and can be set through KORVO_TEST_SEED to repeat a
/// run.
inline std::mt19937 makeRandom(unsigned defaultSeed)
{
    const char* text = std::getenv("KORVO_TEST_SEED");
    const unsigned seed =
        text != nullptr ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : defaultSeed;
    std::cout << "seed " << seed << '\n';
    return std::mt19937(seed);
}

/// `count` values, uniform in [-amplitude, amplitude).
inline std::vector<float> makeNoise(std::mt19937& random, std::size_t count, float amplitude = 1.0F)
{
    std::uniform_real_distribution<float> distribution(-amplitude, amplitude);
    std::vector<float> noise(count);
    for (float& sample : noise)
        sample = distribution(random);
    return noise;
}

} // namespace korvotest
