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
constexpr double kAngle = 2.0 * std::numbers::pi / 480.0; ///< of the sine, per frame

/// A host's audio thread: a slow sine, block after block without pause, on both channels.
class CAudioThread
{
public:
    explicit CAudioThread(krv_handle handle) : m_thread([this, handle] { run(handle); }) {}

    /// What was heard may be read after this.
    void stop()
    {
        m_stop = true;
        m_thread.join();
    }

    float largest = 0.0F;
    float largestStep = 0.0F;
    bool finite = true;
    long blocks = 0;

private:
    void run(krv_handle handle)
    {
        float block[kFrames * 2];
        float previous[2] = {};
        for (unsigned frame = 0; !m_stop; ++blocks)
        {
            for (unsigned i = 0; i < kFrames; ++i, frame = (frame + 1) % 480)
                block[2 * i] = block[2 * i + 1] = static_cast<float>(kAmplitude * std::sin(kAngle * frame));
            krv_process(handle, block, block, kFrames, 2);
            for (unsigned i = 0; i < kFrames * 2; ++i)
            {
                finite = finite && std::isfinite(block[i]);
                largest = std::max(largest, std::fabs(block[i]));
                largestStep = std::max(largestStep, std::fabs(block[i] - previous[i % 2]));
                previous[i % 2] = block[i];
            }
        }
    }

    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

/// Passes the sine at 0.8 of its level in mode 1, at -0.6 in mode 2.
std::vector<korvotest::SChannel> document()
{
    std::vector<float> standard(64, 0.0F), minPhase = standard;
    standard[0] = 0.8F;
    minPhase[0] = -0.6F;
    return korvotest::sameChannels(
        2, {{48000, false, standard}, {48000, true, minPhase}, {96000, false, standard}, {192000}});
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
    processor.start(document(), 48000);
    CAudioThread audio(processor);
    repeatFor(std::chrono::milliseconds(1500), [&](unsigned turn) {
        if (turn % 3 == 0)
            krv_setFilterOperatingMode(processor, 1 + turn / 3 % 2);
        else
            krv_enable(processor, turn % 3 == 2 || turn / 3 % 2 != 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    });
    audio.stop();
    EXPECT_TRUE(audio.finite);
    EXPECT_GT(audio.blocks, 100);
    EXPECT_LE(audio.largest, 0.5F + 1e-6F);
    // The sine moves by 0.0065 a sample. A fade over 128 frames between 0.5 and -0.3 adds at most pi/2 of the
    // mean step of its raised cosine; a hard switch would jump by 0.8.
    const double fade = std::numbers::pi / 2.0 * 1.6 * kAmplitude / kFrames;
    EXPECT_LE(static_cast<double>(audio.largestStep), 1.6 * kAmplitude * kAngle + fade);
}

TEST(StressThreads, AnythingAControlThreadMayDoLeavesTheOutputBounded)
{
    for (const unsigned rate : {48000U, 192000U})
    {
        SCOPED_TRACE(rate);
        CProcessor processor(2, kFrames);
        processor.start(document(), rate);
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
        });
        audio.stop();
        EXPECT_TRUE(audio.finite);
        EXPECT_GT(audio.blocks, 50);
        EXPECT_LE(audio.largest, 4.0F) << "gain 2 on both bands, and their images";
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
