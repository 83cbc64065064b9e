// SPDX-License-Identifier: GPL-3.0-or-later
#include <cstddef>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/ratio.h"
#include "dsp/aligned_memory.h"
#include "dsp/ring_dot.h"
#include "tests/support/plain_fiir.h"
#include "tests/support/random.h"

// The filters of the multi-rate stage against one plain dot product after the other.
namespace {

constexpr unsigned kFrames = 256;

class CRingSubject
{
public:
    CRingSubject(unsigned length, unsigned phases, unsigned ratio)
        : m_length(length), m_in(korvotest::makeNoise(m_random, kFrames)), m_out(kFrames)
    {
        const std::size_t bankSize = korvodsp::firstBankSize(length, ratio);
        m_memory.reset(static_cast<float*>(
            korvodsp::alignedAllocZeroed((4 * phases * bankSize + length) * sizeof(float))));
        for (unsigned bank = 0; bank < 4 * phases; ++bank)
        {
            float* const taps = m_memory.get() + bank * bankSize;
            for (unsigned i = 0; i < 2 * length; ++i)
                taps[i] = m_in[i % kFrames];
            korvodsp::completeFirstBank(taps, length, ratio);
            m_banks.push_back(taps);
        }
        m_ring = {m_memory.get() + 4 * phases * bankSize, length, 0};
    }

    void filter() { korvodsp::ringFilter(m_ring, m_banks.data(), in(), out(), kFrames, 1.0F); }
    void decimate(unsigned ratio)
    {
        korvodsp::ringDecimate(m_ring, m_banks.data(), ratio, in(), out(), kFrames);
    }
    void interpolate(unsigned ratio)
    {
        korvodsp::ringInterpolate(m_ring, m_banks.data(), ratio, in(), out(), kFrames, 1.0F);
    }

    /// One dot product for every `every` samples written, with the banks of one phase after the other.
    void plain(unsigned written, unsigned every, unsigned phases)
    {
        std::size_t given = 0;
        for (unsigned i = 0; i < written; ++i)
        {
            m_ring.samples[m_ring.index] = m_in[i];
            const auto at = static_cast<unsigned>(m_ring.index);
            for (unsigned phase = 0; i % every == every - 1 && phase < phases; ++phase)
                m_out[given++] = korvotest::plainDot(
                    m_ring.samples, m_banks[4 * phase + (at & 3)] + (m_length - (at & ~3U)) % m_length,
                    m_length);
            m_ring.index = at == 0 ? static_cast<int>(m_length) - 1 : m_ring.index - 1;
        }
    }

private:
    korvodsp::SConstColumn in() const { return {m_in.data(), 1}; }
    korvodsp::SColumn out() { return {m_out.data(), 1}; }

    std::mt19937 m_random{9};
    unsigned m_length;
    std::unique_ptr<float, decltype(&korvodsp::alignedFree)> m_memory{nullptr, korvodsp::alignedFree};
    std::vector<const float*> m_banks;
    korvodsp::SRing m_ring{};
    std::vector<float> m_in;
    std::vector<float> m_out;
};

bool registerRingRows()
{
    const std::string plain = "plain four-lane dot products";
    for (const unsigned ratio : {2U, 4U})
    {
        const std::string by = "/by" + std::to_string(ratio);
        const unsigned highPass = ratio == 2 ? 84 : 164;
        const unsigned lowPass = ratio == 2 ? 44 : 84;
        const unsigned phase = ratio == 2 ? 24 : 44;
        korvobench::registerRow({"high-pass" + by, plain}, [=] {
            CRingSubject ring(highPass, 1, ratio);
            return korvobench::speedUp([&] { ring.filter(); }, [&] { ring.plain(kFrames, 1, 1); });
        });
        korvobench::registerRow({"decimator" + by, plain}, [=] {
            CRingSubject ring(lowPass, 1, ratio);
            return korvobench::speedUp([&] { ring.decimate(ratio); }, [&] { ring.plain(kFrames, ratio, 1); });
        });
        korvobench::registerRow({"interpolator" + by, plain}, [=] {
            CRingSubject ring(phase, ratio, ratio);
            return korvobench::speedUp([&] { ring.interpolate(ratio); },
                                       [&] { ring.plain(kFrames / ratio, 1, ratio); });
        });
    }
    return true;
}

const bool s_registered = registerRingRows();

} // namespace
