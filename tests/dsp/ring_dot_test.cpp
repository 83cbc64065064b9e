// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/ring_dot.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "tests/support/guarded_buffer.h"
#include "tests/support/plain_fiir.h"
#include "tests/support/random.h"
#include "tests/support/same_bits.h"
#include "tests/support/variant_test.h"

// Every variant of the ring passes gives the bits of the plain dot product, one frame at a time.
namespace {

using namespace korvodsp;
using namespace korvotest;

/// A ring and the banks of some phases, each in exactly as much memory as the contract asks for.
class CRing
{
public:
    CRing(const std::vector<std::vector<float>>& phases, unsigned length, unsigned ratio, int index)
        : m_samples(std::vector<float>(length)), m_view{m_samples.data(), length, index}
    {
        for (unsigned bank = 0; bank < 4 * phases.size(); ++bank)
        {
            // Ends where its memory ends, so that AddressSanitizer sees a tap that is read too far.
            const std::size_t size = bank % 4 == 0 ? firstBankSize(length, ratio) : 2 * length;
            m_storage.emplace_back(static_cast<float*>(std::aligned_alloc(16, size * sizeof(float))),
                                   std::free);
            m_banks.push_back(m_storage.back().get());
            const std::vector<float>& phase = phases[bank / 4];
            for (unsigned i = 0; i < 2 * length; ++i)
            {
                const unsigned tap = (i + length - bank % 4) % length;
                m_storage.back().get()[i] = tap < phase.size() ? phase[tap] : 0.0F;
            }
            if (bank % 4 == 0)
                completeFirstBank(m_storage.back().get(), length, ratio);
        }
    }

    SRing& view() { return m_view; }
    const float* const* banks() const { return m_banks.data(); }

    void write(float x) { m_view.samples[m_view.index] = x; }
    void step() { m_view.index = (m_view.index == 0 ? static_cast<int>(m_view.length) : m_view.index) - 1; }
    float dot(unsigned phase) const
    {
        const auto at = static_cast<unsigned>(m_view.index);
        const float* bank = m_banks[4 * phase + at % 4] + (m_view.length - at / 4 * 4) % m_view.length;
        const float result = plainDot(m_view.samples, bank, m_view.length);
        EXPECT_EQ(ringDot(bank, m_view.samples, m_view.length), result);
        return result;
    }

    void expectEqual(const CRing& other) const
    {
        EXPECT_EQ(m_view.index, other.m_view.index);
        EXPECT_TRUE(sameBits(m_samples.values(), other.m_samples.values()));
        EXPECT_TRUE(m_samples.intact());
    }

private:
    std::vector<std::unique_ptr<float, decltype(&std::free)>> m_storage;
    std::vector<const float*> m_banks;
    CGuardedBuffer<float> m_samples;
    SRing m_view;
};

constexpr float kScale = 0.7F;

/// What a pass does: decimation, interpolation, or neither.
struct SPass
{
    const char* name;
    unsigned down, up;

    bool isFilter() const { return down == 1 && up == 1; }

    void run(const SKernelVariant& variant, CRing& ring, SConstColumn in, SColumn out, unsigned frames) const
    {
        if (isFilter())
            variant.ringFilter(ring.view(), ring.banks(), in, out, frames, kScale);
        else if (up == 1)
            variant.ringDecimate(ring.view(), ring.banks(), down, in, out, frames);
        else
            variant.ringInterpolate(ring.view(), ring.banks(), up, in, out, frames, kScale);
    }

    std::vector<float> runPlain(CRing& ring, const std::vector<float>& x, unsigned frames) const
    {
        std::vector<float> results;
        for (unsigned i = 0; i < frames; ++i)
        {
            if (i % up == 0)
                ring.write(x[i / up]);
            if (up > 1 && i % up == 0)
                ring.step();
            if (i % down == down - 1)
                results.push_back(ring.dot(i % up) * (down == 1 ? kScale : 1.0F));
            if (up == 1)
                ring.step();
        }
        return results;
    }
};

void expectPlainBits(const SKernelVariant& variant, const SPass& pass, unsigned length, std::mt19937& random)
{
    SCOPED_TRACE(std::string(variant.name) + ", " + pass.name + ", ring of " + std::to_string(length));
    std::vector<std::vector<float>> phases(pass.up);
    for (std::vector<float>& phase : phases)
        phase = makeNoise(random, length - random() % 4);
    const int start = static_cast<int>(random() % length);
    CRing plain(phases, length, std::max(pass.up, pass.down), start);
    CRing subject(phases, length, std::max(pass.up, pass.down), start);
    for (unsigned block = 0; block < 12; ++block)
    {
        const unsigned frames = static_cast<unsigned>(random()) % 700;
        const unsigned inStride = static_cast<unsigned>(random()) % 3 + 1;
        const unsigned outStride = static_cast<unsigned>(random()) % 3 + 1;
        const bool inPlace = pass.isFilter() && inStride == outStride;
        const std::vector<float> x = makeNoise(random, (frames + pass.up - 1) / pass.up);
        const std::vector<float> expected = pass.runPlain(plain, x, frames);
        CGuardedBuffer<float> in(blockOf(x, 0, inStride), 4);
        CGuardedBuffer<float> apart(blockOf(std::vector<float>(expected.size()), 0, outStride), 8);
        CGuardedBuffer<float>& out = inPlace ? in : apart;
        pass.run(variant, subject, {in.data(), inStride}, {out.data(), outStride}, frames);
        ASSERT_TRUE(sameBits(out.values(), blockOf(expected, 0, outStride))) << "block " << block;
        ASSERT_TRUE(in.intact() && out.intact());
        subject.expectEqual(plain);
    }
}

using RingDot = CVariantTest;

TEST_P(RingDot, GivesTheBitsOfThePlainDotProduct)
{
    auto random = makeRandom(51);
    const SPass passes[] = {{"filter", 1, 1},
                            {"decimate by 2", 2, 1},
                            {"decimate by 4", 4, 1},
                            {"interpolate by 2", 1, 2},
                            {"interpolate by 4", 1, 4}};
    for (const unsigned length : {4U, 12U, 16U, 20U, 24U, 32U, 44U, 84U, 164U, 256U, 260U})
    {
        for (const SPass& pass : passes)
        {
            for (int repeat = 0; repeat < 4; ++repeat)
                ASSERT_NO_FATAL_FAILURE(expectPlainBits(variant(), pass, length, random));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(All, RingDot, everyVariant(), variantName);

} // namespace
