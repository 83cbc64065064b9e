// SPDX-License-Identifier: GPL-3.0-or-later
#include "filter/filter_job_pool.h"

#include <algorithm>
#include <condition_variable>
#include <vector>

#include <sys/syscall.h>
#include <unistd.h>

namespace korvo::filter {

using Clock = std::chrono::steady_clock;

/// One generation of threads. A juce::ThreadPool starts its threads at once, never stops them while it lives,
/// and kills those that do not stop within half a second of its end. So each thread without a job is kept in
/// a keeper, a job of our own that steps aside for real ones, and that makes the thread leave of itself when
/// the crew has been idle for long enough. The pool object that is left behind has no threads.
class CFilterJobPool::CCrew
{
public:
    explicit CCrew(std::chrono::milliseconds idleTime);
    ~CCrew();
    CCrew(const CCrew&) = delete;
    CCrew& operator=(const CCrew&) = delete;

    /// False, with the job left alone, when the threads are about to leave.
    bool post(std::unique_ptr<juce::ThreadPoolJob>& job);

private:
    class CKeeper;
    class CPostedJob;

    struct SMember
    {
        juce::Thread* thread;
        pid_t id;
    };

    juce::ThreadPoolJob::JobStatus keep();
    void joinCrew();
    void dropUnstarted();
    static void waitUntilGone(const SMember& member);

    const std::chrono::milliseconds m_idleTime;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<SMember> m_members;
    int m_unstarted = 0;  ///< posted jobs that wait for a thread
    int m_unfinished = 0; ///< posted jobs that wait or run
    bool m_leaving = false;
    Clock::time_point m_idleSince = Clock::now();
    juce::ThreadPool m_pool{kThreads};
};

class CFilterJobPool::CCrew::CKeeper : public juce::ThreadPoolJob
{
public:
    explicit CKeeper(CCrew& crew) : juce::ThreadPoolJob({}), m_crew(crew) {}
    JobStatus runJob() override { return m_crew.keep(); }

private:
    CCrew& m_crew;
};

/// Counts a job in and out, also when it is dropped unstarted.
class CFilterJobPool::CCrew::CPostedJob : public juce::ThreadPoolJob
{
public:
    CPostedJob(CCrew& crew, std::unique_ptr<juce::ThreadPoolJob> job)
        : juce::ThreadPoolJob({}), m_crew(crew), m_job(std::move(job))
    {
    }

    ~CPostedJob() override
    {
        m_job.reset();
        const std::lock_guard lock(m_crew.m_mutex);
        m_crew.m_unstarted -= m_started ? 0 : 1;
        --m_crew.m_unfinished;
        m_crew.m_idleSince = Clock::now();
        m_crew.m_changed.notify_all();
    }

    JobStatus runJob() override
    {
        {
            const std::lock_guard lock(m_crew.m_mutex);
            m_started = true;
            --m_crew.m_unstarted;
        }
        m_job->runJob();
        return jobHasFinished;
    }

private:
    CCrew& m_crew;
    std::unique_ptr<juce::ThreadPoolJob> m_job;
    bool m_started = false;
};

CFilterJobPool::CCrew::CCrew(std::chrono::milliseconds idleTime) : m_idleTime(idleTime)
{
    for (int i = 0; i < kThreads; ++i)
        m_pool.addJob(new CKeeper(*this), true);
}

CFilterJobPool::CCrew::~CCrew()
{
    dropUnstarted();
    {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_unfinished == 0; });
        m_leaving = true;
        m_changed.notify_all();
        // Only where the system refused a thread does this run to its end.
        m_changed.wait_for(lock, std::chrono::seconds(5),
                           [this] { return m_members.size() == std::size_t{kThreads}; });
    }
    for (const SMember& member : m_members)
        waitUntilGone(member);
}

bool CFilterJobPool::CCrew::post(std::unique_ptr<juce::ThreadPoolJob>& job)
{
    const std::lock_guard lock(m_mutex);
    if (m_leaving)
        return false;
    auto posted = std::make_unique<CPostedJob>(*this, std::move(job));
    ++m_unstarted;
    ++m_unfinished;
    m_pool.addJob(posted.release(), true);
    m_changed.notify_all();
    return true;
}

/// What a thread does between jobs.
juce::ThreadPoolJob::JobStatus CFilterJobPool::CCrew::keep()
{
    std::unique_lock lock(m_mutex);
    joinCrew();
    while (!m_leaving)
    {
        if (m_unstarted > 0)
            return juce::ThreadPoolJob::jobNeedsRunningAgain; // to the end of the queue, behind the job that
                                                              // waits
        if (m_unfinished > 0)
            m_changed.wait(lock);
        else if (Clock::now() < m_idleSince + m_idleTime)
            m_changed.wait_until(lock, m_idleSince + m_idleTime);
        else
            m_leaving = true;
    }
    m_changed.notify_all();
    juce::Thread::getCurrentThread()->signalThreadShouldExit();
    return juce::ThreadPoolJob::jobHasFinished;
}

void CFilterJobPool::CCrew::joinCrew()
{
    juce::Thread* self = juce::Thread::getCurrentThread();
    if (std::none_of(m_members.begin(), m_members.end(), [=](const SMember& m) { return m.thread == self; }))
    {
        m_members.push_back({self, static_cast<pid_t>(syscall(SYS_gettid))});
        m_changed.notify_all();
    }
}

void CFilterJobPool::CCrew::dropUnstarted()
{
    struct SPosted : juce::ThreadPool::JobSelector
    {
        bool isJobSuitable(juce::ThreadPoolJob* job) override
        {
            return !job->isRunning() && dynamic_cast<CPostedJob*>(job) != nullptr;
        }
    } posted;
    m_pool.removeAllJobs(false, 0, &posted);
}

/// JUCE detaches its threads and calls them ended while their last instructions, which are in this library,
/// are still to come. A host that unloads the library right then would crash.
void CFilterJobPool::CCrew::waitUntilGone(const SMember& member)
{
    member.thread->waitForThreadToExit(-1);
    const auto giveUp = Clock::now() + std::chrono::seconds(1); // The id may be another thread's by now.
    while (syscall(SYS_tgkill, getpid(), member.id, 0) == 0 && Clock::now() < giveUp)
        juce::Thread::sleep(1);
}

CFilterJobPool::CFilterJobPool(std::chrono::milliseconds idleTime) : m_idleTime(idleTime)
{
    // JUCE keeps what this returns in a static. Made now, it is destroyed after this pool and not before.
    juce::Thread::getCurrentThread();
}

CFilterJobPool::~CFilterJobPool() = default;

void CFilterJobPool::addJob(std::unique_ptr<juce::ThreadPoolJob> job)
{
    const std::lock_guard lock(m_mutex);
    while (m_crew == nullptr || !m_crew->post(job))
    {
        m_crew.reset();
        m_crew = std::make_unique<CCrew>(m_idleTime);
    }
}

CFilterJobPool& filterJobPool()
{
    static CFilterJobPool pool;
    return pool;
}

} // namespace korvo::filter
