// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <atomic>
#include <mutex>

namespace korvo::filter {

/// What a waiting caller lends to its job: its receiver, its stream, its list. The job touches these only
/// inside use(). A caller whose time is up calls the loan in; from then on the job, which may go on for a
/// while, touches nothing of it. Shared by both sides, so whoever ends last frees it.
class CJobLoan
{
public:
    /// Runs `work` unless the loan has been called in. Returns whether it ran.
    template<typename FWork>
    bool use(FWork&& work)
    {
        const std::lock_guard lock(m_mutex);
        if (m_calledIn)
            return false;
        work();
        return true;
    }

    /// Waits for a use() in progress, so `work` should be short.
    void callIn()
    {
        // Before the lock: a job that goes from one use to the next would keep that from its caller for long.
        m_calledIn = true;
        const std::lock_guard lock(m_mutex);
    }

private:
    std::mutex m_mutex;
    std::atomic<bool> m_calledIn{false};
};

} // namespace korvo::filter
