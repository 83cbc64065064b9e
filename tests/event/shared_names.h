// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

namespace korvotest {

/// A prefix for names of shared memory and semaphores. What carries it is removed as soon as this object is
/// gone or, by a process of its own, the whole test is, in whatever way it went.
class CSharedNames
{
public:
    /// A prefix that no other test uses.
    CSharedNames() : CSharedNames(ownPrefix(), -1) {}
    /// One that is the same in each run of a test; runs at the same time take turns.
    explicit CSharedNames(const char* fixed) : CSharedNames(fixed, open("/dev/shm", O_RDONLY | O_CLOEXEC)) {}
    ~CSharedNames()
    {
        kill(m_janitor, SIGKILL);
        waitpid(m_janitor, nullptr, 0);
        removeAll();
        if (m_turn >= 0)
            close(m_turn);
    }
    CSharedNames(const CSharedNames&) = delete;
    CSharedNames& operator=(const CSharedNames&) = delete;

    const std::string& prefix() const { return m_prefix; }
    std::string name(const std::string& suffix) const { return m_prefix + suffix; }

private:
    CSharedNames(std::string prefix, int turn) : m_prefix(std::move(prefix)), m_turn(turn), m_janitor(fork())
    {
        if (m_janitor < 0)
            throw std::runtime_error("no process to clean up after the test");
        if (m_janitor == 0)
            waitForTheEndOfTheTest();
        if (m_turn >= 0 && flock(m_turn, LOCK_EX) != 0) // the janitor's as well, until it has cleaned up
            throw std::runtime_error("no turn");
    }

    static std::string ownPrefix()
    {
        static int s_count = 0;
        return "korvotest-" + std::to_string(getpid()) + "-" + std::to_string(s_count++) + "-";
    }

    [[noreturn]] void waitForTheEndOfTheTest() const
    {
        setsid(); // what ends the test by its group leaves the janitor
        sigset_t end;
        sigemptyset(&end);
        sigaddset(&end, SIGTERM);
        sigprocmask(SIG_BLOCK, &end, nullptr);
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        int signal = 0;
        if (getppid() == m_test)
            sigwait(&end, &signal);
        removeAll();
        _exit(0);
    }

    void removeAll() const
    {
        std::error_code ignored;
        for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", ignored))
        {
            const std::string file = entry.path().filename().string();
            if (file.starts_with(m_prefix) || file.starts_with("sem." + m_prefix))
                std::filesystem::remove(entry.path(), ignored);
        }
    }

    std::string m_prefix;
    int m_turn; // the lock, or -1
    pid_t m_test = getpid();
    pid_t m_janitor;
};

/// A second process that runs `work` and ends with its result. Does not outlive the test, nor half a minute.
class CChild
{
public:
    explicit CChild(const std::function<int()>& work) : m_process(fork())
    {
        if (m_process != 0)
            return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        alarm(30);
        _exit(work());
    }
    ~CChild()
    {
        if (m_process > 0)
            kill();
    }
    CChild(const CChild&) = delete;
    CChild& operator=(const CChild&) = delete;

    void kill()
    {
        ::kill(m_process, SIGKILL);
        wait();
    }

    /// The exit code, or 128 and the number of the signal that ended it.
    int wait()
    {
        int status = 0;
        waitpid(std::exchange(m_process, -1), &status, 0);
        return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }

private:
    pid_t m_process;
};

/// Whether `condition` comes true within half a minute.
inline bool eventually(const std::function<bool()>& condition)
{
    for (int i = 0; i < 30000 && !condition(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return condition();
}

} // namespace korvotest
