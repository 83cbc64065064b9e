// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/filtering_engine.h"

#include <algorithm>
#include <cmath>
#include <random>
#include <utility>
#include <vector>

#include "dsp/buffer_operations.h"
#include "dsp/channel_delay.h"
#include "dsp/fiir_filter.h"
#include "tests/support/fiir_builder.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/random.h"
#include "tests/support/same_bits.h"

namespace {

using korvodsp::CFilteringEngine;
using korvotest::FiirHandle;
using korvotest::makeFiir;

/// At 1000 Hz a millisecond is a sample.
constexpr unsigned kRate = 1000;

/// One channel in plain loops. The delay line is the whole past, so nothing wraps.
struct SPlainChannel
{
    unsigned maxDelay = 0; ///< 0 where a delay line cannot be had
    float gain = 1.0F, appliedGain = 1.0F;
    unsigned delay = 0;
    bool active = false;
    void *current = nullptr, *pending = nullptr, *retired = nullptr;
    std::vector<float> past;

    void setFilter(void* filter)
    {
        if (filter == current || filter == pending)
            return;
        pending = filter;
        reset();
    }

    void reset()
    {
        past.clear();
        appliedGain = gain;
        korvodsp::FIIR_Reset(current);
        korvodsp::FIIR_Reset(pending);
    }

    void delayAndGain(std::vector<float>& column)
    {
        const float step = (gain - appliedGain) / static_cast<float>(column.size());
        float g = std::exchange(appliedGain, gain);
        const unsigned d = std::min(delay, maxDelay);
        for (float& sample : column)
        {
            past.push_back(sample);
            sample = g * (past.size() > d ? past[past.size() - 1 - d] : 0.0F);
            g += step;
        }
    }

    /// `out` holds what was there before, and then what is there after.
    void process(bool wanted, bool stageEnabled, const std::vector<float>& dry, std::vector<float>& out)
    {
        const bool leaving = pending != nullptr && pending != current;
        wanted = wanted && !leaving;
        if (current != nullptr && (wanted || active))
        {
            std::vector<float> wet(dry.size());
            korvodsp::FIIR_Process(current, dry.data(), wet.data(), static_cast<unsigned>(dry.size()));
            if (stageEnabled)
                delayAndGain(wet);
            out = wanted == active ? wet : wanted ? faded(dry, wet) : faded(wet, dry);
            if (!wanted)
                korvodsp::FIIR_Reset(current);
            active = wanted;
        }
        if (leaving)
            retired =
                std::exchange(current, pending == CFilteringEngine::kInactiveFilter ? nullptr : pending);
        pending = nullptr;
    }

    static std::vector<float> faded(const std::vector<float>& from, const std::vector<float>& to)
    {
        std::vector<float> mixed(from.size());
        korvodsp::FadeBuffers(from.data(), to.data(), mixed.data(), static_cast<unsigned>(from.size()), 0, 1);
        return mixed;
    }
};

/// Random control calls and blocks for one channel of the engine and its plain twin.
void comparePlain(std::mt19937& random, unsigned channel, unsigned maxDelay)
{
    constexpr unsigned kMaxFrames = 150; // more than the ring of 128, so most blocks cross its end
    const auto draw = [&](unsigned below) { return static_cast<unsigned>(random() % below); };
    const std::vector<float> taps = korvotest::makeNoise(random, 21);
    const std::vector<float> sections = korvotest::makeSections(random, 5);
    std::vector<FiirHandle> filters; // two for the engine, then their twins
    for (int i = 0; i < 4; ++i)
        filters.push_back(makeFiir(korvodsp::kInitAuto, i % 2 == 0 ? taps : std::vector{0.7F}, sections));
    void* const a = filters[0].get();
    void* const b = filters[1].get();
    void* const choices[] = {a, b, a, b, nullptr, CFilteringEngine::kInactiveFilter};
    const auto twinOf = [&](void* f) { return f == a ? filters[2].get() : f == b ? filters[3].get() : f; };

    SPlainChannel plain;
    plain.maxDelay = korvodsp::delayRingBytes(maxDelay) == 0 ? 0 : maxDelay;
    void* retired = nullptr;
    CFilteringEngine engine(channel + 1);
    engine.initFilters(&kRate, 1);
    ASSERT_TRUE(engine.init(kRate, kMaxFrames, 8, maxDelay));
    for (int round = 0; round < 2000; ++round)
    {
        if (draw(6) == 0)
            engine.setChannelGain(channel,
                                  plain.gain = static_cast<float>(draw(4)) / (draw(2) == 0 ? 3.0F : -3.0F));
        if (draw(6) == 0)
            engine.setChannelDelay(channel, static_cast<float>(plain.delay = draw(140)));
        if (draw(20) == 0)
            engine.setOverallGain(static_cast<float>(draw(5)) / 3.0F - 0.3F);
        if (draw(20) == 0)
        {
            engine.enableDelayAndGain(draw(4) != 0);
            plain.past.resize(engine.isDelayAndGainEnabled() ? 0 : plain.past.size());
        }
        if (draw(4) == 0)
        {
            void* const filter = choices[draw(6)];
            const unsigned rates[] = {0, kRate, kRate, 44100}; // there is no slot for the last
            const unsigned rate = rates[draw(4)];
            engine.setFilterForChannel(rate, channel, filter);
            engine.setFilterForChannel(kRate, channel + 1, filter); // no such channel
            if (rate != 44100)
                plain.setFilter(twinOf(filter));
        }
        switch (draw(120))
        {
        case 0:
            engine.removeAllFiltersHard();
            plain.current = plain.pending = nullptr;
            break;
        case 1:
            EXPECT_TRUE(engine.removeAllFilters().empty());
            plain.pending = CFilteringEngine::kInactiveFilter;
            break;
        case 2:
            ASSERT_TRUE(engine.init(kRate, kMaxFrames, 8, maxDelay));
            plain.reset();
        }
        engine.enable(draw(6) != 0);
        const bool bypass = draw(10) == 0;
        for (void* const filter : {a, b})
            ASSERT_EQ(engine.hasFilter(kRate, channel, filter),
                      twinOf(filter) == plain.current || twinOf(filter) == plain.pending);

        const unsigned frames = draw(8) == 0 ? draw(2) : draw(kMaxFrames + 1);
        const unsigned stride = channel + 1 + draw(6);
        const std::vector<float> in = korvotest::makeNoise(random, std::size_t{frames} * stride);
        const bool inPlace = draw(2) == 0;
        std::vector<float> expected = inPlace ? in : korvotest::makeNoise(random, in.size());
        korvotest::CGuardedBuffer<float> out(expected);
        std::vector<float> dry(frames), column(frames);
        for (std::size_t i = 0; i < frames; ++i)
        {
            dry[i] = in[i * stride + channel];
            column[i] = expected[i * stride + channel];
        }
        plain.process(engine.isEnabled() && !bypass, engine.isDelayAndGainEnabled(), dry, column);
        for (std::size_t i = 0; i < frames; ++i)
            expected[i * stride + channel] = column[i] * engine.getOverallGain();
        const float* const source = inPlace ? out.data() : in.data();
        ASSERT_TRUE(engine.process(bypass, source, out.data(), frames, channel, stride, &retired));
        ASSERT_TRUE(korvotest::sameBits(out.values(), expected)) << "round " << round;
        ASSERT_TRUE(out.intact());
        ASSERT_EQ(twinOf(retired), plain.retired);
        ASSERT_EQ(engine.hasFilters(), plain.current != nullptr);
    }
}

TEST(FilteringEngine, EqualsPlainLoopsToTheBit)
{
    std::mt19937 random = korvotest::makeRandom(31);
    comparePlain(random, 0, 100);
    comparePlain(random, 2, 100);
    comparePlain(random, 1, 0xFFFFFFFF);
}

TEST(FilteringEngine, RunsTheFilterOfItsRateAlone)
{
    const unsigned rates[] = {kRate, 48000};
    const FiirHandle filter = makeFiir(korvodsp::kInitAuto, {2.0F});
    CFilteringEngine engine(1);
    engine.initFilters(rates, 2);
    engine.setFilterForChannel(48000, 0, filter.get());
    for (const unsigned rate : rates)
    {
        ASSERT_TRUE(engine.init(rate, 1, 1, 0));
        float sample = 0.0F;
        void* retired = nullptr;
        for (int block = 0; block < 3; ++block)
            engine.process(&(sample = 1.0F), &sample, 1, 0, 1, &retired);
        EXPECT_EQ(sample, rate == kRate ? 1.0F : 2.0F);
    }
}

TEST(FilteringEngine, HoldsSettingsWithinTheirRange)
{
    CFilteringEngine engine(1);
    const float rows[][3] = {
        {0.5F, 0.5F, 0.5F}, {1e30F, 1.0F, 1e30F}, {-1.0F, -1.0F, 0.0F}, {NAN, 1.0F, 0.0F}};
    for (const auto& [set, overallGain, delayMs] : rows)
    {
        engine.setOverallGain(set);
        engine.setChannelDelay(0, set);
        EXPECT_EQ(engine.getOverallGain(), overallGain) << set;
        EXPECT_EQ(engine.getChannelDelay(0), delayMs) << set;
    }
}

TEST(FilteringEngine, RefusesWhatInitDidNotProvideFor)
{
    CFilteringEngine engine(4);
    std::vector<float> block(32, 1.0F);
    void* retired = nullptr;
    const auto accepts = [&](unsigned frames, unsigned channels) {
        return engine.process(block.data(), block.data(), frames, 0, channels, &retired);
    };
    EXPECT_FALSE(accepts(1, 1) || engine.init(kRate, 0, 4, 0));
    EXPECT_FALSE(engine.init(kRate, 1U << 31, 2, 0)); // 16 GiB, 0 in 32 bits
    EXPECT_TRUE(accepts(0, 4) && !accepts(1, 1));
    ASSERT_TRUE(engine.init(kRate, 8, 4, 0));
    EXPECT_TRUE(accepts(8, 4) && accepts(32, 1));
    engine.setOverallGain(0.5F);
    EXPECT_FALSE(accepts(9, 4) || accepts(33, 1));
    EXPECT_FALSE(accepts(1U << 30, 4) || accepts((1U << 30) + 1, 4)); // 0 and 16 bytes in 32 bits
    EXPECT_EQ(block, std::vector<float>(32, 1.0F));
    EXPECT_TRUE(!engine.init(kRate, 0, 4, 0) && !accepts(1, 1));
}

TEST(ChannelDelay, StaysWithinItsRing)
{
    // At 48000 Hz, 100 ms at most; 89478488 ms are 2^32 samples.
    const std::pair<float, unsigned> delays[] = {{0.0104F, 0},     {0.0105F, 1},  {99.98F, 4799},
                                                 {100.1F, 4800},   {1e30F, 4800}, {89478488.0F, 4800},
                                                 {INFINITY, 4800}, {-1.0F, 0},    {NAN, 0}};
    for (const auto& [ms, samples] : delays)
        EXPECT_EQ(korvodsp::delayInSamples(ms, 48.0F, 4800), samples) << ms;
    // 100 ms at two of the rates that filters run at; nothing to delay; more than can be had
    for (const auto& [samples, bytes] :
         {std::pair{4410U, 32768U}, {9600U, 65536U}, {0U, 0U}, {0xFFFFFFFFU, 0U}})
        EXPECT_EQ(korvodsp::delayRingBytes(samples), bytes);
}

} // namespace
