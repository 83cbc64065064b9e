// SPDX-License-Identifier: GPL-3.0-or-later
#include "filter/filter_jobs.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "filter/filter_job_pool.h"
#include "tests/filter/document_fixture.h"

namespace {

using namespace korvo::filter;
using namespace std::chrono_literals;
using korvotest::CRecorder;
using korvotest::kExample;
using Clock = std::chrono::steady_clock;

/// One-way gate between threads.
class CGate
{
public:
    void open()
    {
        const std::lock_guard lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    bool wait(std::chrono::milliseconds limit = 20s)
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, limit, [this] { return m_open; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false;
};

class CWork : public juce::ThreadPoolJob
{
public:
    explicit CWork(std::function<void()> work) : juce::ThreadPoolJob({}), m_work(std::move(work)) {}
    JobStatus runJob() override
    {
        m_work();
        return jobHasFinished;
    }

private:
    const std::function<void()> m_work;
};

std::ptrdiff_t threads()
{
    // With the first thread of a process ThreadSanitizer starts one of its own.
    [[maybe_unused]] static const bool s_started = (std::thread([] {}).join(), true);
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

bool eventually(const std::function<bool()>& condition)
{
    for (const auto giveUp = Clock::now() + 10s; Clock::now() < giveUp; std::this_thread::sleep_for(2ms))
        if (condition())
            return true;
    return condition();
}

TEST(FilterJobPoolThreads, HasTwoThreadsWhileThereIsWorkAndNoneAWhileLater)
{
    const std::ptrdiff_t before = threads();
    CFilterJobPool pool(100ms);
    for (int generation = 0; generation < 3; ++generation)
    {
        EXPECT_EQ(threads(), before);
        // Shared, since that the threads have gone is known by counting them and not by joining them.
        struct SGates
        {
            CGate running[3];
            CGate finish;
        };
        const auto gates = std::make_shared<SGates>();
        for (int job = 0; job < 3; ++job)
            pool.addJob(std::make_unique<CWork>([gates, job] {
                gates->running[job].open();
                gates->finish.wait();
            }));
        EXPECT_TRUE(gates->running[0].wait() && gates->running[1].wait());
        EXPECT_EQ(threads(), before + 2);
        EXPECT_FALSE(gates->running[2].wait(5ms));
        gates->finish.open();
        EXPECT_TRUE(gates->running[2].wait());
        const auto ended = Clock::now();
        EXPECT_TRUE(eventually([&] { return threads() == before; }));
        EXPECT_GE(Clock::now() - ended, 50ms);
    }
}

TEST(FilterJobPoolThreads, RunsEachJobOnceHoweverPostsAndRetirementMeet)
{
    std::atomic<int> runs{0};
    std::atomic<int> deletions{0};
    const std::ptrdiff_t before = threads();
    {
        CFilterJobPool pool(1ms);
        std::vector<std::jthread> posters;
        for (int poster = 0; poster < 4; ++poster)
            posters.emplace_back([&, poster] {
                for (int i = 0; i < 40; ++i)
                {
                    const auto counter = std::shared_ptr<void>(nullptr, [&](void*) { ++deletions; });
                    pool.addJob(std::make_unique<CWork>([&runs, counter] { ++runs; }));
                    std::this_thread::sleep_for(std::chrono::microseconds((i * 7 + poster) % 11 * 300));
                }
            });
        posters.clear();
        EXPECT_TRUE(eventually([&] { return runs == 160; }));
    }
    EXPECT_EQ(runs, 160);
    EXPECT_EQ(deletions, 160);
    EXPECT_EQ(threads(), before); // The destructor has seen them off.
}

TEST(FilterJobPoolThreads, WaitsForTheRunningJobsAndDropsTheOthersWhenDestroyed)
{
    std::atomic<int> runs{0};
    CGate running[2];
    {
        CFilterJobPool pool;
        for (CGate& gate : running)
            pool.addJob(std::make_unique<CWork>([&] {
                gate.open();
                std::this_thread::sleep_for(50ms);
                ++runs;
            }));
        EXPECT_TRUE(running[0].wait() && running[1].wait());
        pool.addJob(std::make_unique<CWork>([&] { ++runs; }));
    }
    EXPECT_EQ(runs, 2);
}

std::unique_ptr<juce::InputStream> streamOf(const std::string& text)
{
    return std::make_unique<juce::MemoryInputStream>(text.data(), text.size(), true);
}

TEST(FilterJobsThreads, TellWhatBecameOfADocument)
{
    CRecorder recorder;
    EXPECT_EQ(readFilterDocument(streamOf(kExample), &recorder), kJobDone);
    EXPECT_EQ(recorder.calls.size(), 3U);
    const auto borrowed = streamOf(kExample + std::string("\0\xFF\xFE", 3)); // ends at the zero byte
    borrowed->setPosition(10); // read from its start all the same
    EXPECT_EQ(readFilterDocument(borrowed.get(), &recorder), kJobDone);

    EXPECT_EQ(readFilterDocument(streamOf(""), &recorder), kJobRefused);
    EXPECT_EQ(readFilterDocument(streamOf(kExample.substr(0, 300)), &recorder), kJobRefused);
    juce::InputStream* const none = nullptr;
    EXPECT_EQ(readFilterDocument(none, &recorder), kJobNotRead);
    EXPECT_EQ(readFilterDocument(borrowed.get(), nullptr), kJobNotRead);
    EXPECT_EQ(loadFilterDocument(none, &recorder), kJobNotRead);

    struct SThrower : CRecorder
    {
        bool IFIIRCallback_ChannelInfo(unsigned int, const char*, unsigned int, float, float, float) override
        {
            throw std::bad_alloc();
        }
    } thrower;
    EXPECT_EQ(readFilterDocument(borrowed.get(), &thrower), kJobRefused);
}

/// Gives one byte at a time, and each only after `delay`.
class CSlowStream : public juce::MemoryInputStream
{
public:
    CSlowStream(std::function<void()> delay, std::atomic<bool>& alive)
        : juce::MemoryInputStream(kExample.data(), kExample.size(), false), m_delay(std::move(delay)),
          m_alive(alive)
    {
        m_alive = true;
    }
    ~CSlowStream() override { m_alive = false; }
    int read(void* buffer, int) override
    {
        m_delay();
        return juce::MemoryInputStream::read(buffer, 1);
    }

private:
    const std::function<void()> m_delay;
    std::atomic<bool>& m_alive;
};

TEST(FilterJobsThreads, LetGoOfABorrowedStreamAndReceiverAtTheTimeOut)
{
    std::atomic<bool> alive{false};
    {
        CSlowStream stream([] { std::this_thread::sleep_for(10ms); }, alive);
        CRecorder recorder;
        EXPECT_EQ(readFilterDocument(&stream, &recorder, 30), kJobNotRead);
        EXPECT_EQ(recorder.wantsCalls, 0);
    }
    // What the job still did with either would be a use after free.
    std::this_thread::sleep_for(50ms);
}

TEST(FilterJobsThreads, ReturnInTimeFromAStreamThatBlocksAndFreeItWhenItLetsGo)
{
    std::atomic<bool> alive{false};
    CGate gate;
    auto recorder = std::make_unique<CRecorder>();
    const auto start = Clock::now();
    EXPECT_EQ(
        readFilterDocument(std::make_unique<CSlowStream>([&] { gate.wait(); }, alive), recorder.get(), 30),
        kJobNotRead);
    EXPECT_LT(Clock::now() - start, 10s);
    EXPECT_EQ(recorder->wantsCalls, 0);
    recorder.reset();
    EXPECT_TRUE(alive);
    gate.open();
    EXPECT_TRUE(eventually([&] { return !alive; }));
}

TEST(FilterJobsThreads, CallNoReceiverAfterTheTimeOut)
{
    struct SSlow : CRecorder
    {
        bool IFIIRCallback_FilterInfo(const char*, const char*, unsigned int, const char*, const char*,
                                      const char*) override
        {
            std::this_thread::sleep_for(60ms);
            left = true;
            return true;
        }
        bool left = false;
    };
    auto slow = std::make_unique<SSlow>();
    EXPECT_EQ(readFilterDocument(streamOf(kExample), slow.get(), 20), kJobNotRead);
    EXPECT_TRUE(slow->left); // The call in progress was waited for,
    EXPECT_TRUE(slow->calls.empty());
    slow.reset(); // and there is no further one.
    std::this_thread::sleep_for(30ms);
}

} // namespace
