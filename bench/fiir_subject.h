// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <random>
#include <vector>

#include "dsp/kernel_variants.h"
#include "tests/support/fiir_builder.h"
#include "tests/support/plain_fiir.h"
#include "tests/support/random.h"

namespace korvobench {

/// A filter with a block of noise to run it on.
class CFiirSubject
{
public:
    /// @param variant  of the vector kernel; null for the one that the machine gets
    CFiirSubject(unsigned taps, unsigned sections, unsigned frames, const char* variant = nullptr)
        : m_random(7), m_filter(makeFilter(taps, sections, variant)),
          m_in(korvotest::makeNoise(m_random, frames)), m_out(frames)
    {
    }

    void run() { korvodsp::FIIR_Process(m_filter.get(), m_in.data(), m_out.data(), frames()); }
    void runPlain() { korvotest::plainFiir(m_filter.get(), m_in.data(), m_out.data(), frames(), 0, 1); }

private:
    unsigned frames() const { return static_cast<unsigned>(m_in.size()); }

    korvotest::FiirHandle makeFilter(unsigned taps, unsigned sections, const char* variant)
    {
        korvodsp::forceKernelVariant(variant);
        const std::vector<float> h = korvotest::makeNoise(m_random, taps);
        auto filter = korvotest::makeFiir(korvodsp::kInitSSE, h, korvotest::makeSections(m_random, sections));
        korvodsp::forceKernelVariant(nullptr);
        return filter;
    }

    std::mt19937 m_random;
    korvotest::FiirHandle m_filter;
    std::vector<float> m_in;
    std::vector<float> m_out;
};

} // namespace korvobench
