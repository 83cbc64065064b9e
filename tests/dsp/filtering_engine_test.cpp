// SPDX-License-Identifier: GPL-3.0-or-later
#include "dsp/filtering_engine.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <memory>
#include <numbers>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "dsp/channel_delay.h"
#include "dsp/fiir_filter.h"
#include "tests/support/fiir_builder.h"
#include "tests/support/guarded_buffer.h"
#include "tests/support/random.h"

namespace {

using korvodsp::CFilteringEngine;
using korvotest::FiirHandle;
using korvotest::makeFiir;
using testing::FloatNear;
using testing::Pointwise;

/// At 1000 Hz a millisecond is a sample.
constexpr unsigned kRate = 1000;
constexpr unsigned kOtherRate = 48000;
constexpr unsigned kMaxDelay = 100;

FiirHandle makeTap(float tap)
{
    return makeFiir(korvodsp::kInitAuto, {tap});
}

/// An engine of one channel at kRate; blocks go through in place.
struct SMono
{
    explicit SMono(unsigned maxDelay = kMaxDelay)
    {
        const unsigned rates[] = {kRate, kOtherRate};
        engine.initFilters(rates, 2);
        EXPECT_TRUE(engine.init(kRate, 64, 1, maxDelay));
    }

    std::vector<float> run(std::vector<float> block)
    {
        const auto frames = static_cast<unsigned>(block.size());
        EXPECT_TRUE(engine.process(block.data(), block.data(), frames, 0, 1, &retired));
        return block;
    }

    void play(void* filter)
    {
        engine.setFilterForChannel(kRate, 0, filter);
        run({0.0F});
        run({0.0F});
    }

    CFilteringEngine engine{1};
    void* retired = nullptr;
};

/// One channel in plain loops. The delay line is the whole past, so nothing wraps.
struct SPlainChannel
{
    float gain = 1.0F, appliedGain = 1.0F;
    unsigned delay = 0;
    bool active = false;
    void *current = nullptr, *pending = nullptr;
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
        float g = appliedGain;
        appliedGain = gain;
        const unsigned d = std::min(delay, kMaxDelay);
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
        wanted = wanted && (pending == nullptr || pending == current);
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
        if (pending != nullptr)
            current = pending == CFilteringEngine::kInactiveFilter ? nullptr : pending;
        pending = nullptr;
    }

    static std::vector<float> faded(std::vector<float> from, const std::vector<float>& to)
    {
        const float w = 3.1415927F / static_cast<float>(from.size());
        const float c = static_cast<float>(2.0 * std::cos(static_cast<double>(w)));
        float before = c * 0.5F * 0.5F;
        float s = 0.5F;
        for (std::size_t k = 0; k < from.size(); ++k)
        {
            from[k] = (0.5F - s) * to[k] + (s + 0.5F) * from[k];
            before = std::exchange(s, s * c - before);
        }
        return from;
    }
};

/// Random control calls and blocks for one channel of the engine and its plain twin.
void comparePlain(std::mt19937& random, unsigned channel)
{
    constexpr unsigned kMaxFrames = 150; // more than the ring of 128, so most blocks cross its end
    const auto draw = [&](unsigned below) { return static_cast<unsigned>(random() % below); };
    const std::vector<float> taps = korvotest::makeNoise(random, 21);
    const std::vector<float> sections = korvotest::makeSections(random, 5);
    std::vector<FiirHandle> filters; // two for the engine, then their twins
    for (int i = 0; i < 4; ++i)
        filters.push_back(makeFiir(korvodsp::kInitAuto, i % 2 == 0 ? taps : std::vector{0.7F}, sections));

    SPlainChannel plain;
    void* retired = nullptr;
    CFilteringEngine engine(channel + 1);
    engine.initFilters(&kRate, 1);
    ASSERT_TRUE(engine.init(kRate, kMaxFrames, 8, kMaxDelay));
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
            const unsigned i = draw(2);
            void* const none = i == 0 ? nullptr : CFilteringEngine::kInactiveFilter;
            const bool some = draw(4) != 0;
            engine.setFilterForChannel(draw(2) * kRate, channel, some ? filters[i].get() : none);
            plain.setFilter(some ? filters[i + 2].get() : none);
        }
        if (draw(40) == 0)
        {
            engine.removeAllFiltersHard();
            plain.current = plain.pending = nullptr;
        }
        if (draw(40) == 0)
        {
            ASSERT_TRUE(engine.init(kRate, kMaxFrames, 8, kMaxDelay));
            plain.reset();
        }
        engine.enable(draw(6) != 0);
        const bool bypass = draw(10) == 0;

        const unsigned frames = draw(8) == 0 ? draw(2) : draw(kMaxFrames + 1);
        const unsigned stride = channel + 1 + draw(6);
        const std::vector<float> in = korvotest::makeNoise(random, std::size_t{frames} * stride);
        const bool inPlace = draw(2) == 0;
        std::vector<float> expected = inPlace ? in : korvotest::makeNoise(random, in.size());
        korvotest::CGuardedBuffer<float> out(in.size());
        out.assign(expected);
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
        ASSERT_TRUE(in.empty() || std::memcmp(expected.data(), out.data(), in.size() * sizeof(float)) == 0)
            << "round " << round;
        ASSERT_TRUE(out.intact());
    }
}

} // namespace

TEST(FilteringEngine, EqualsPlainLoopsToTheBit)
{
    std::mt19937 random = korvotest::makeRandom(31);
    for (const unsigned channel : {0U, 2U})
        comparePlain(random, channel);
}

TEST(FilteringEngine, ExchangesFiltersThroughTheDrySignal)
{
    const auto first = makeTap(2.0F);
    const auto second = makeTap(5.0F);
    SMono mono;
    CFilteringEngine& engine = mono.engine;
    mono.play(first.get());
    engine.setFilterForChannel(kRate, 0, second.get());
    EXPECT_TRUE(engine.hasFilter(kRate, 0, first.get()) && engine.hasFilter(kRate, 0, second.get()));
    const std::vector<float> ones(4, 1.0F);
    const float root = std::numbers::sqrt2_v<float>; // cos(k * pi / 4) = 1, root / 2, 0, -root / 2
    EXPECT_THAT(mono.run(ones), Pointwise(FloatNear(1e-6F), {2.0F, 1.5F + root / 4, 1.5F, 1.5F - root / 4}));
    EXPECT_EQ(mono.retired, first.get());
    EXPECT_TRUE(!engine.hasFilter(kRate, 0, first.get()) && engine.hasFilter(kRate, 0, second.get()));
    EXPECT_THAT(mono.run(ones), Pointwise(FloatNear(1e-6F), {1.0F, 3.0F - root, 3.0F, 3.0F + root}));
    EXPECT_EQ(mono.run({1.0F}), std::vector{5.0F});

    // Blocks without frames exchange all the same, and take the gain with them.
    engine.setFilterForChannel(kRate, 0, first.get());
    engine.setChannelGain(0, 0.25F);
    mono.run({});
    mono.run({});
    EXPECT_EQ(mono.run({1.0F}), std::vector{0.5F});

    EXPECT_TRUE(engine.removeAllFilters().empty() && engine.hasFilters());
    mono.run({1.0F});
    EXPECT_FALSE(engine.hasFilters());
    EXPECT_EQ(mono.run({1.0F}), std::vector{1.0F});

    // A hard removal forgets nothing but the filters: what comes next is heard at once.
    mono.play(first.get());
    engine.removeAllFiltersHard();
    EXPECT_FALSE(engine.hasFilters());
    engine.setFilterForChannel(0, 0, second.get());
    EXPECT_EQ(mono.run({1.0F}), std::vector{1.0F});
    EXPECT_EQ(mono.run({1.0F}), std::vector{1.25F});
}

TEST(FilteringEngine, RunsTheFilterOfItsRateAlone)
{
    const auto filter = makeTap(2.0F);
    SMono mono;
    mono.engine.setFilterForChannel(kRate, 1, filter.get()); // no such channel
    mono.engine.setFilterForChannel(44100, 0, filter.get()); // no such slot
    mono.engine.setFilterForChannel(kOtherRate, 0, filter.get());
    EXPECT_FALSE(mono.engine.hasFilters()); // pending alone does not count
    for (int block = 0; block < 3; ++block)
        EXPECT_EQ(mono.run({1.0F}), std::vector{1.0F});
    EXPECT_TRUE(mono.engine.hasFilters());
    ASSERT_TRUE(mono.engine.init(kOtherRate, 64, 1, kMaxDelay));
    EXPECT_EQ(mono.run({1.0F}), std::vector{1.0F});
    EXPECT_EQ(mono.run({1.0F}), std::vector{2.0F});
}

TEST(FilteringEngine, RefusesWhatInitDidNotProvideFor)
{
    CFilteringEngine engine(4);
    std::vector<float> block(32, 1.0F);
    void* retired = nullptr;
    const auto accepts = [&](unsigned frames, unsigned channels) {
        return engine.process(block.data(), block.data(), frames, 0, channels, &retired);
    };
    EXPECT_FALSE(accepts(1, 1) || engine.init(kRate, 0, 4, kMaxDelay));
    EXPECT_FALSE(engine.init(kRate, 1U << 31, 2, kMaxDelay)); // 16 GiB, 0 in 32 bits
    EXPECT_TRUE(accepts(0, 4) && !accepts(1, 1));
    ASSERT_TRUE(engine.init(kRate, 8, 4, kMaxDelay));
    EXPECT_TRUE(accepts(8, 4) && accepts(32, 1));
    engine.setOverallGain(0.5F);
    EXPECT_FALSE(accepts(9, 4) || accepts(33, 1));
    EXPECT_FALSE(accepts(1U << 30, 4) || accepts((1U << 30) + 1, 4)); // 0 and 16 bytes in 32 bits
    EXPECT_EQ(block, std::vector<float>(32, 1.0F));
    EXPECT_TRUE(!engine.init(kRate, 0, 4, kMaxDelay) && !accepts(1, 1));
}

TEST(FilteringEngine, HoldsSettingsAndDelaysWithinTheirRange)
{
    const struct
    {
        float set, overallGain, delayMs;
        unsigned samples; // at 48000 Hz, 100 ms at most
    } rows[] = {{0.0104F, 0.0104F, 0.0104F, 0}, {0.0105F, 0.0105F, 0.0105F, 1},
                {99.98F, 1.0F, 99.98F, 4799},   {100.1F, 1.0F, 100.1F, 4800},
                {1e30F, 1.0F, 1e30F, 4800},     {INFINITY, 1.0F, INFINITY, 4800},
                {-1.0F, -1.0F, 0.0F, 0},        {NAN, 1.0F, 0.0F, 0}};
    CFilteringEngine engine(1);
    for (const auto& row : rows)
    {
        engine.setOverallGain(row.set);
        engine.setChannelDelay(0, row.set);
        EXPECT_EQ(engine.getOverallGain(), row.overallGain);
        EXPECT_EQ(engine.getChannelDelay(0), row.delayMs);
        EXPECT_EQ(korvodsp::delayInSamples(row.set, 48.0F, 4800), row.samples) << row.set;
    }
}

TEST(FilteringEngine, DelaysUpToTheLimitAndDoesWithoutADelayLine)
{
    // 100 ms at two of the rates that filters run at; nothing to delay; more than can be had
    EXPECT_EQ(korvodsp::delayRingBytes(4410), 32768U);
    EXPECT_EQ(korvodsp::delayRingBytes(9600), 65536U);
    EXPECT_EQ(korvodsp::delayRingBytes(0), 0U);
    EXPECT_EQ(korvodsp::delayRingBytes(0xFFFFFFFFU), 0U);
    for (const unsigned maxDelay : {32U, 0xFFFFFFFFU})
    {
        SMono mono(maxDelay);
        const auto unity = makeTap(1.0F);
        mono.engine.setChannelDelay(0, 1e30F);
        mono.play(unity.get());
        mono.engine.setChannelGain(0, 0.0F);
        std::vector<float> impulses(64);
        impulses[0] = impulses[16] = 1.0F;
        const std::vector<float> out = mono.run(impulses); // half of the ramp's way down after 32 frames
        EXPECT_EQ(out[32], maxDelay == 32 ? 0.5F : 0.0F);
        EXPECT_EQ(out[16], maxDelay == 32 ? 0.0F : 0.75F);
    }
}

namespace {

/// Until a whole call of process() has begun and ended: a filter is offered again only when no call can be in
/// the middle of taking it over.
void waitForWholePass(const CFilteringEngine& engine)
{
    for (const std::uint32_t begun = engine.passCount(); engine.passCount() - begun < 3;)
        std::this_thread::yield();
}

} // namespace

TEST(FilteringEngineThreads, StaysBoundedUnderControlCalls)
{
    // Taps of at most 1 in all, and a section that adds less than that.
    std::vector<FiirHandle> filters;
    for (int i = 0; i < 4; ++i)
        filters.push_back(
            makeFiir(korvodsp::kInitAuto, {0.5F, 0.25F, -0.25F}, {-0.5F, 0.25F, 0.125F, -0.06F}));
    CFilteringEngine engine(2);
    engine.initFilters(&kRate, 1);
    ASSERT_TRUE(engine.init(kRate, 64, 2, kMaxDelay));

    std::atomic<bool> stop = false;
    bool bounded = true;
    std::thread audio([&] {
        std::vector<float> block(128);
        void* retired = nullptr;
        for (unsigned t = 0; !stop.load(std::memory_order_acquire); ++t)
        {
            std::fill(block.begin(), block.end(), t % 16 < 8 ? 1.0F : -1.0F);
            engine.process(block.data(), block.data(), t % 65, 0, 2, &retired);
            engine.process(block.data(), block.data(), t % 65, 1, 2, &retired);
            for (const float sample : block)
                bounded = bounded && std::abs(sample) <= 2.0F; // not so for a NaN
        }
    });

    std::mt19937 random = korvotest::makeRandom(32);
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (std::chrono::steady_clock::now() < end)
    {
        const unsigned channel = random() % 2;
        waitForWholePass(engine);
        engine.setFilterForChannel(kRate, channel, filters[channel * 2 + random() % 2].get());
        engine.setChannelGain(channel, static_cast<float>(random() % 3) / 2.0F);
        engine.setChannelDelay(channel, static_cast<float>(random() % 200));
        engine.setOverallGain(static_cast<float>(random() % 3) / 2.0F);
        engine.enable(random() % 8 != 0);
        engine.enableDelayAndGain(random() % 8 != 0);
        if (random() % 16 == 0)
            engine.removeAllFilters();
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 200));
    }
    for (int i = 0; i < 1000 && engine.hasFilters();
         std::this_thread::sleep_for(std::chrono::milliseconds(10)), ++i)
        engine.removeAllFilters();
    EXPECT_FALSE(engine.hasFilters());
    stop.store(true, std::memory_order_release);
    audio.join();
    EXPECT_TRUE(bounded);
}
