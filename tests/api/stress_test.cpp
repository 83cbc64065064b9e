// SPDX-License-Identifier: GPL-3.0-or-later
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <numbers>
#include <thread>

#include "tests/support/processor.h"

using korvotest::CProcessor;
using korvotest::SSet;

namespace {

constexpr unsigned kFrames = 128;
constexpr double kAmplitude = 0.5;

/// What the audio thread of a test has seen of one instance.
struct SHeard
{
    float largest = 0.0F;
    float largestStep = 0.0F;
    bool finite = true;
    long blocks = 0;
};

/// A host's audio thread: a slow sine, block after block without pause, on both channels.
class CAudioThread
{
public:
    explicit CAudioThread(krv_handle handle) : m_thread([this, handle] { run(handle); }) {}

    SHeard stop()
    {
        m_stop = true;
        m_thread.join();
        return m_heard;
    }

private:
    void run(krv_handle handle)
    {
        float block[kFrames * 2];
        float previous[2] = {};
        for (std::uint64_t frame = 0; !m_stop; frame += kFrames)
        {
            for (unsigned i = 0; i < kFrames; ++i)
            {
                const double angle =
                    2.0 * std::numbers::pi * 100.0 / 48000.0 * static_cast<double>((frame + i) % 480);
                block[2 * i] = block[2 * i + 1] = static_cast<float>(kAmplitude * std::sin(angle));
            }
            krv_process(handle, block, block, kFrames, 2);
            for (unsigned i = 0; i < kFrames * 2; ++i)
                listen(block[i], previous[i % 2]);
            ++m_heard.blocks;
        }
    }

    void listen(float sample, float& previous)
    {
        m_heard.finite = m_heard.finite && std::isfinite(sample);
        m_heard.largest = std::max(m_heard.largest, std::fabs(sample));
        m_heard.largestStep = std::max(m_heard.largestStep, std::fabs(sample - previous));
        previous = sample;
    }

    std::atomic<bool> m_stop{false};
    SHeard m_heard;
    std::thread m_thread;
};

/// Passes the sine at 0.8 of its level in mode 1, at -0.6 in mode 2.
std::vector<korvotest::SChannel> document()
{
    SSet standard{48000, false, std::vector<float>(64, 0.0F), {{0, 0, 0, 0}}};
    standard.taps[0] = 0.8F;
    SSet minPhase = standard;
    minPhase.minPhase = true;
    minPhase.taps[0] = -0.6F;
    SSet base96{96000, false, standard.taps, {{0, 0, 0, 0}}};
    return korvotest::sameChannels(2, {standard, minPhase, base96, SSet{192000}});
}

template<typename Action>
void repeatFor(std::chrono::milliseconds span, Action&& action)
{
    const auto end = std::chrono::steady_clock::now() + span;
    for (unsigned turn = 0; std::chrono::steady_clock::now() < end; ++turn)
        action(turn);
}

} // namespace

TEST(StressThreads, FilterChangesAreHeardAsFades)
{
    CProcessor processor(2, kFrames);
    ASSERT_EQ(processor.load(document()), KRV_STATUS_OK);
    ASSERT_EQ(krv_setSamplerate(processor, 48000), KRV_STATUS_OK);
    CAudioThread audio(processor);
    repeatFor(std::chrono::milliseconds(1500), [&](unsigned turn) {
        switch (turn % 3)
        {
        case 0:
            krv_setFilterOperatingMode(processor, 1 + turn / 3 % 2);
            break;
        case 1:
            krv_enable(processor, static_cast<int>(turn / 3 % 2));
            break;
        default:
            krv_enable(processor, 1);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    });
    const SHeard heard = audio.stop();
    EXPECT_TRUE(heard.finite);
    EXPECT_GT(heard.blocks, 100);
    EXPECT_LE(heard.largest, 0.5F + 1e-6F);
    // The sine moves by 0.0065 a sample. A fade over 128 frames between 0.5 and -0.3 adds at most pi/2 of the
    // mean step of its raised cosine; a hard switch would jump by 0.8.
    const double sine = kAmplitude * 2.0 * std::numbers::pi * 100.0 / 48000.0;
    const double fade = std::numbers::pi / 2.0 * 1.6 * kAmplitude / kFrames;
    EXPECT_LE(static_cast<double>(heard.largestStep), 1.6 * sine + fade);
}

TEST(StressThreads, AnythingAControlThreadMayDoLeavesTheOutputBounded)
{
    for (const unsigned rate : {48000U, 192000U})
    {
        SCOPED_TRACE(rate);
        CProcessor processor(2, kFrames);
        ASSERT_EQ(processor.load(document()), KRV_STATUS_OK);
        ASSERT_EQ(krv_setSamplerate(processor, rate), KRV_STATUS_OK);
        CAudioThread audio(processor);
        repeatFor(std::chrono::milliseconds(1200), [&](unsigned turn) {
            krv_setChannelDelay(processor, turn % 2, static_cast<float>(turn % 150));
            krv_setChannelGain(processor, turn % 2, static_cast<float>(turn % 5) * 0.5F);
            krv_setOverallGain(processor, 0.5F + static_cast<float>(turn % 3) * 0.25F);
            krv_enable(processor, turn % 7 != 0);
            krv_enableDelayAndGain(processor, turn % 11 != 0);
            if (turn % 64 == 0)
                processor.load(document());
            if (turn % 64 == 32)
                krv_setFilterOperatingMode(processor, 2);
            std::int32_t enabled = 0;
            krv_isEnabled(processor, &enabled);
        });
        const SHeard heard = audio.stop();
        EXPECT_TRUE(heard.finite);
        EXPECT_GT(heard.blocks, 50);
        EXPECT_LE(heard.largest, 4.0F) << "gain 2 on both bands, and their images";
    }
}

TEST(StressThreads, TwoInstancesLoadAtOnce)
{
    std::atomic<int> failures{0};
    const auto work = [&failures] {
        CProcessor processor(2, kFrames);
        for (int i = 0; i < 20; ++i)
            if (processor.load(document()) != KRV_STATUS_OK)
                ++failures;
    };
    std::thread first(work), second(work);
    first.join();
    second.join();
    EXPECT_EQ(failures, 0);
}
