// SPDX-License-Identifier: GPL-3.0-or-later
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <tuple>
#include <vector>

#include "event/transport/deadline.h"
#include "event/transport/thread_event.h"

using event::transport::Event;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

TEST(ThreadEvent, RemembersOneNotification)
{
    Event wake;
    EXPECT_FALSE(wake.wait(0));
    wake.notify();
    wake.notify();
    EXPECT_TRUE(wake.wait(0));
    const auto start = Clock::now();
    EXPECT_FALSE(wake.wait(50));
    // Two clocks that are read one after the other may differ by a little.
    EXPECT_GE(Clock::now() - start, milliseconds(45));
}

TEST(ThreadEvent, CarriesMicrosecondsIntoTheSecond)
{
    for (const auto& [nanoseconds, timeoutMs, expected] :
         {std::tuple(600000000L, 1500U, 100000000L), std::tuple(499999000L, 2500U, 999999000L)})
    {
        const timespec deadline = event::transport::deadlineAfter({100, nanoseconds}, timeoutMs);
        EXPECT_EQ(deadline.tv_sec, 102);
        EXPECT_EQ(deadline.tv_nsec, expected);
    }
}

TEST(ThreadEventThreads, WakesASleeper)
{
    for (const unsigned int timeoutMs : {Event::s_kTimeOutInfinite, 20000U})
    {
        Event wake;
        Event awake;
        std::thread sleeper([&] {
            EXPECT_TRUE(wake.wait(timeoutMs));
            awake.notify();
        });
        EXPECT_FALSE(awake.wait(30));
        wake.notify();
        EXPECT_TRUE(awake.wait(20000));
        sleeper.join();
    }
}

TEST(ThreadEventThreads, ACrowdLosesNoWakeUp)
{
    constexpr int kThreads = 8;
    constexpr int kNotesEach = 2000;
    Event wake;
    std::atomic<int> notes = 0;
    std::vector<std::thread> crowd;
    for (int i = 0; i < kThreads; ++i)
    {
        crowd.emplace_back([&] {
            for (int n = 0; n < kNotesEach; ++n)
            {
                ++notes;
                wake.notify();
            }
        });
    }
    // Were a wake-up lost, the last note would be seen only after the time-out.
    bool everWoken = true;
    for (int seen = 0; seen < kThreads * kNotesEach && everWoken; seen = notes)
        everWoken = wake.wait(20000);
    EXPECT_TRUE(everWoken);
    for (std::thread& thread : crowd)
        thread.join();
}
