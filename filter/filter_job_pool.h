// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <chrono>
#include <memory>
#include <mutex>

#include <juce_core/juce_core.h>

namespace korvo::filter {

/// Two threads for jobs that read filter files. They are started by the first job and leave when none has run
/// for a while; the next job starts them anew. Whoever destroys the pool waits for the job that is running,
/// and after that no thread of it executes anything. Threads: any, several at once.
class CFilterJobPool
{
public:
    static constexpr int kThreads = 2;
    static constexpr std::chrono::milliseconds kIdleTime{5000};

    explicit CFilterJobPool(std::chrono::milliseconds idleTime = kIdleTime);
    ~CFilterJobPool();
    CFilterJobPool(const CFilterJobPool&) = delete;
    CFilterJobPool& operator=(const CFilterJobPool&) = delete;

    /// Runs the job once, on one of the threads, and deletes it there. Its destructor runs unused where the
    /// pool is destroyed first.
    void addJob(std::unique_ptr<juce::ThreadPoolJob> job);

private:
    class CCrew;

    const std::chrono::milliseconds m_idleTime;
    std::mutex m_mutex;
    std::unique_ptr<CCrew> m_crew;
};

/// The one pool of the process.
CFilterJobPool& filterJobPool();

} // namespace korvo::filter
