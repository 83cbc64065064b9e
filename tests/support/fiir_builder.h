// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cmath>
#include <memory>
#include <random>
#include <stdexcept>
#include <vector>

#include "dsp/fiir_filter.h"

namespace korvotest {

using FiirHandle = std::unique_ptr<void, decltype(&korvodsp::FIIR_Discard)>;

/// A filter ready to run. `sections` holds a1, a2, b0, b1 of one section after the other.
inline FiirHandle makeFiir(korvodsp::EInit kind, const std::vector<float>& taps,
                           const std::vector<float>& sections = {})
{
    void* raw = nullptr;
    if (!korvodsp::FIIR_InitRaw(kind, &raw))
        throw std::runtime_error("no filter");
    FiirHandle handle(raw, korvodsp::FIIR_Discard);
    if (!korvodsp::FIIR_SetFIRCoefficients(raw, taps.data(), static_cast<unsigned>(taps.size())))
        throw std::runtime_error("no taps");
    for (std::size_t i = 0; i + 3 < sections.size(); i += 4)
        korvodsp::FIIR_AddBQSection(raw, sections.data() + i);
    korvodsp::FIIR_CookBQSections(raw);
    korvodsp::FIIR_Reset(raw);
    return handle;
}

inline korvodsp::FIIR_FILTER_tag& fieldsOf(const FiirHandle& filter)
{
    return *static_cast<korvodsp::FIIR_FILTER_tag*>(filter.get());
}

/// All that a filter remembers of its input, in the fields of the vector kernel.
inline std::vector<float> stateOf(const FiirHandle& filter)
{
    const korvodsp::FIIR_FILTER_tag& f = fieldsOf(filter);
    std::vector<float> state = {static_cast<float>(f.delayPos), f.denormalBias, f.prevInput};
    state.insert(state.end(), f.delayLine, f.delayLine + f.paddedTaps);
    state.insert(state.end(), f.cookedSections,
                 f.cookedSections + f.numCookedGroups * korvodsp::kFloatsPerGroup);
    return state;
}

/// Coefficients of `count` stable sections: pairs of poles with radii from 0.5 to 0.9 all around the circle.
inline std::vector<float> makeSections(std::mt19937& random, unsigned count)
{
    std::uniform_real_distribution<double> radius(0.5, 0.9);
    std::uniform_real_distribution<double> angle(0.0, 3.14159);
    std::uniform_real_distribution<double> gain(-0.5, 0.5);
    std::vector<float> coefs;
    for (unsigned s = 0; s < count; ++s)
    {
        const double r = radius(random);
        for (const double c : {-2.0 * r * std::cos(angle(random)), r * r, gain(random), gain(random)})
            coefs.push_back(static_cast<float>(c));
    }
    return coefs;
}

} // namespace korvotest
