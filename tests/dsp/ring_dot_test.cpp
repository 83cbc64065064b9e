// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/ring_dot.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "dsp/kernel_variants.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/plain_fiir.h"
#include "tests/support/random.h"

// Every variant of the ring passes gives the bits of the plain dot product, one frame at a time.
namespace {

using namespace korvodsp;
using Guarded = korvotest::CGuardedBuffer<float>;

/// A ring and the banks of some phases, each in exactly as much memory as the contract asks for.
class CRing
{
public:
    CRing(const std::vector<std::vector<float>>& phases, unsigned length, int index)
        : m_samples(length), m_index(index), m_length(length)
    {
        for (const std::vector<float>& phase : phases)
        {
            for (unsigned rotation = 0; rotation < 4; ++rotation)
            {
                // Ends where its memory ends, so that AddressSanitizer sees a tap that is read too far.
                m_storage.emplace_back(
                    static_cast<float*>(std::aligned_alloc(16, 2 * length * sizeof(float))), std::free);
                for (unsigned i = 0; i < 2 * length; ++i)
                {
                    const unsigned tap = (i + length - rotation) % length;
                    m_storage.back().get()[i] = tap < phase.size() ? phase[tap] : 0.0F;
                }
                m_banks.push_back(m_storage.back().get());
            }
        }
        for (unsigned i = 0; i < length; ++i)
            m_samples.set(i, 0.0F);
    }

    SRing view() { return {m_samples.data(), m_length, m_index}; }
    const float* const* banks() const { return m_banks.data(); }

    void write(float x) { m_samples.set(static_cast<std::size_t>(m_index), x); }
    void step() { m_index = m_index == 0 ? static_cast<int>(m_length) - 1 : m_index - 1; }
    float plainDot(unsigned phase)
    {
        const auto at = static_cast<unsigned>(m_index);
        const float* bank = m_banks[4 * phase + (at & 3)] + (m_length - (at & ~3U)) % m_length;
        return korvotest::plainDot(m_samples.data(), bank, m_length);
    }

    void expectEqual(const SRing& other) const
    {
        EXPECT_EQ(m_index, other.index);
        for (unsigned i = 0; i < m_length; ++i)
            ASSERT_EQ(m_samples.get(i), other.samples[i]) << i;
    }
    bool intact() const { return m_samples.intact(); }

private:
    std::vector<std::unique_ptr<float, decltype(&std::free)>> m_storage;
    std::vector<const float*> m_banks;
    Guarded m_samples;
    int m_index;
    unsigned m_length;
};

struct SPass
{
    const char* name;
    unsigned phases; ///< of the taps
    void (*run)(const SKernelVariant&, SRing&, const CRing&, SConstColumn, SColumn, unsigned frames);
    /// @return what the pass gives, and how many elements it takes from `x`
    std::size_t (*runPlain)(CRing&, const float* x, unsigned frames, std::vector<float>& results);
};

constexpr float kScale = 0.7F;

template<unsigned ratio>
std::size_t decimatePlainly(CRing& ring, const float* x, unsigned frames, std::vector<float>& results)
{
    for (unsigned i = 0; i < frames; ++i)
    {
        ring.write(x[i]);
        if (i % ratio == ratio - 1)
            results.push_back(ring.plainDot(0) * (ratio == 1 ? kScale : 1.0F));
        ring.step();
    }
    return frames;
}

template<unsigned ratio>
std::size_t interpolatePlainly(CRing& ring, const float* x, unsigned frames, std::vector<float>& results)
{
    std::size_t taken = 0;
    for (unsigned i = 0; i < frames; ++i)
    {
        if (i % ratio == 0)
        {
            ring.write(x[taken++]);
            ring.step();
        }
        results.push_back(ring.plainDot(i % ratio) * kScale);
    }
    return taken;
}

template<unsigned ratio>
void decimate(const SKernelVariant& variant, SRing& ring, const CRing& taps, SConstColumn in, SColumn out,
              unsigned frames)
{
    variant.ringDecimate(ring, taps.banks(), ratio, in, out, frames);
}

template<unsigned ratio>
void interpolate(const SKernelVariant& variant, SRing& ring, const CRing& taps, SConstColumn in, SColumn out,
                 unsigned frames)
{
    variant.ringInterpolate(ring, taps.banks(), ratio, in, out, frames, kScale);
}

void filter(const SKernelVariant& variant, SRing& ring, const CRing& taps, SConstColumn in, SColumn out,
            unsigned frames)
{
    variant.ringFilter(ring, taps.banks(), in, out, frames, kScale);
}

const SPass kPasses[] = {
    {"filter", 1, filter, decimatePlainly<1>},
    {"decimate by 2", 1, decimate<2>, decimatePlainly<2>},
    {"decimate by 4", 1, decimate<4>, decimatePlainly<4>},
    {"interpolate by 2", 2, interpolate<2>, interpolatePlainly<2>},
    {"interpolate by 4", 4, interpolate<4>, interpolatePlainly<4>},
};

void expectPlainBits(const SKernelVariant& variant, const SPass& pass, unsigned length, std::mt19937& random)
{
    SCOPED_TRACE(std::string(variant.name) + ", " + pass.name + ", ring of " + std::to_string(length));
    std::vector<std::vector<float>> phases(pass.phases);
    for (std::vector<float>& phase : phases)
        phase = korvotest::makeNoise(random, length - random() % 4);
    const int start = static_cast<int>(random() % length);
    CRing plain(phases, length, start);
    CRing subject(phases, length, start);
    SRing ring = subject.view();
    for (unsigned block = 0; block < 12; ++block)
    {
        const auto frames = static_cast<unsigned>(random() % 300);
        const unsigned inStride = 1 + static_cast<unsigned>(random() % 3);
        const unsigned outStride = 1 + static_cast<unsigned>(random() % 3);
        const std::vector<float> x = korvotest::makeNoise(random, frames);
        std::vector<float> expected;
        const std::size_t taken = pass.runPlain(plain, x.data(), frames, expected);
        Guarded in(taken * inStride, 4);
        Guarded out(expected.size() * outStride, 8);
        for (std::size_t i = 0; i < in.size(); ++i)
            in.set(i, x[i / inStride]);
        for (std::size_t i = 0; i < out.size(); ++i)
            out.set(i, 5.0F);
        pass.run(variant, ring, subject, {in.data(), inStride}, {out.data(), outStride}, frames);
        for (std::size_t i = 0; i < out.size(); ++i)
            ASSERT_EQ(out.get(i), i % outStride == 0 ? expected[i / outStride] : 5.0F)
                << "block " << block << ", " << i;
        ASSERT_TRUE(in.intact() && out.intact() && subject.intact());
        ASSERT_NO_FATAL_FAILURE(plain.expectEqual(ring));
    }
}

class RingDot : public testing::TestWithParam<std::size_t>
{
};

TEST_P(RingDot, GivesTheBitsOfThePlainDotProduct)
{
    auto random = korvotest::makeRandom(51);
    for (const unsigned length : {4U, 12U, 16U, 20U, 24U, 32U, 44U, 84U, 164U, 256U, 260U})
    {
        for (const SPass& pass : kPasses)
        {
            for (int repeat = 0; repeat < 4; ++repeat)
                ASSERT_NO_FATAL_FAILURE(expectPlainBits(kernelVariants()[GetParam()], pass, length, random));
        }
    }
}

TEST_P(RingDot, FiltersInPlace)
{
    auto random = korvotest::makeRandom(52);
    const SKernelVariant& variant = kernelVariants()[GetParam()];
    const std::vector<std::vector<float>> taps = {korvotest::makeNoise(random, 82)};
    CRing apart(taps, 84, 0);
    CRing same(taps, 84, 0);
    SRing apartRing = apart.view();
    SRing sameRing = same.view();
    std::vector<float> block = korvotest::makeNoise(random, 400);
    std::vector<float> expected(block.size(), 0.0F);
    variant.ringFilter(apartRing, apart.banks(), {block.data(), 2}, {expected.data(), 2}, 200, 1.0F);
    variant.ringFilter(sameRing, same.banks(), {block.data(), 2}, {block.data(), 2}, 200, 1.0F);
    for (std::size_t i = 0; i < block.size(); i += 2)
        ASSERT_EQ(block[i], expected[i]) << i;
}

INSTANTIATE_TEST_SUITE_P(All, RingDot, testing::Range(std::size_t{0}, kernelVariants().size()),
                         [](const auto& test) { return std::string(kernelVariants()[test.param].name); });

TEST(RingDotSingle, GivesTheBitsOfThePlainDotProduct)
{
    auto random = korvotest::makeRandom(53);
    for (const unsigned length : {4U, 16U, 24U, 44U, 84U, 164U})
    {
        Guarded bank(length, 16);
        Guarded samples(length, 16);
        bank.assign(korvotest::makeNoise(random, length));
        samples.assign(korvotest::makeNoise(random, length));
        EXPECT_EQ(ringDot(bank.data(), samples.data(), length),
                  korvotest::plainDot(samples.data(), bank.data(), length));
    }
}

} // namespace
