// SPDX-License-Identifier: GPL-3.0-or-later
#include "filter/filter_jobs.h"

#include <array>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
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

constexpr int kLong = 20000; // ms

/// One-way gate between threads.
struct SGate : juce::WaitableEvent
{
    SGate() : juce::WaitableEvent(true) {}
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
        const auto gates = std::make_shared<std::array<SGate, 4>>();
        SGate* const running = gates->data();
        SGate& finish = gates->back();
        for (std::size_t job = 0; job < 3; ++job)
            pool.addJob(std::make_unique<CWork>([gates, job] {
                (*gates)[job].signal();
                gates->back().wait(kLong);
            }));
        EXPECT_TRUE(running[0].wait(kLong) && running[1].wait(kLong));
        EXPECT_EQ(threads(), before + 2);
        EXPECT_FALSE(running[2].wait(5));
        finish.signal();
        EXPECT_TRUE(running[2].wait(kLong));
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
    SGate running[2];
    {
        CFilterJobPool pool;
        for (SGate& gate : running)
            pool.addJob(std::make_unique<CWork>([&] {
                gate.signal();
                std::this_thread::sleep_for(50ms);
                ++runs;
            }));
        EXPECT_TRUE(running[0].wait(kLong) && running[1].wait(kLong));
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

    recorder.answer = [](const std::string&) -> bool { throw std::bad_alloc(); };
    EXPECT_EQ(readFilterDocument(borrowed.get(), &recorder), kJobRefused);
}

/// Gives one byte at a time, and each only after `delay`.
class CSlowStream : public juce::MemoryInputStream
{
public:
    explicit CSlowStream(std::function<void()> delay)
        : juce::MemoryInputStream(kExample.data(), kExample.size(), false), m_delay(std::move(delay))
    {
    }
    int read(void* buffer, int) override
    {
        m_delay();
        return juce::MemoryInputStream::read(buffer, 1);
    }

private:
    const std::function<void()> m_delay;
};

TEST(FilterJobsThreads, LetGoOfABorrowedStreamAndReceiverAtTheTimeOut)
{
    {
        CSlowStream stream([] { std::this_thread::sleep_for(10ms); });
        CRecorder recorder;
        EXPECT_EQ(readFilterDocument(&stream, &recorder, 30), kJobNotRead);
        EXPECT_EQ(recorder.wantsCalls, 0);
    }
    // What the job still did with either would be a use after free.
    std::this_thread::sleep_for(50ms);
}

TEST(FilterJobsThreads, ReturnInTimeFromAStreamThatBlocksAndFreeItWhenItLetsGo)
{
    const auto gate = std::make_shared<SGate>();
    const auto start = Clock::now();
    {
        CRecorder recorder;
        auto stream = std::make_unique<CSlowStream>([gate] { gate->wait(kLong); });
        EXPECT_EQ(readFilterDocument(std::move(stream), &recorder, 30), kJobNotRead);
        EXPECT_EQ(recorder.wantsCalls, 0);
    }
    EXPECT_LT(Clock::now() - start, 10s);
    EXPECT_EQ(gate.use_count(), 2) << "the stream is still in use";
    gate->signal();
    EXPECT_TRUE(eventually([&] { return gate.use_count() == 1; }));
}

TEST(FilterJobsThreads, CallNoReceiverAfterTheTimeOut)
{
    auto slow = std::make_unique<CRecorder>();
    bool left = false;
    slow->answer = [&left](const std::string&) {
        std::this_thread::sleep_for(60ms);
        return left = true;
    };
    EXPECT_EQ(readFilterDocument(streamOf(kExample), slow.get(), 20), kJobNotRead);
    EXPECT_TRUE(left); // The call in progress was waited for,
    EXPECT_EQ(slow->calls.size(), 1U);
    slow.reset(); // and there is no further one.
    std::this_thread::sleep_for(30ms);
}

} // namespace
