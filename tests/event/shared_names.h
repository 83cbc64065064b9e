// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <fcntl.h>
#include <signal.h>
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
#include <vector>

namespace korvotest {

/// A prefix for names of shared memory and semaphores; if none is given, one that no other test uses. What
/// carries it is removed by a process of its own as soon as this object or the whole test is gone, in
/// whatever way it went.
class CSharedNames
{
public:
    explicit CSharedNames(std::string prefix = ownPrefix()) : m_prefix(std::move(prefix))
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0 || (m_janitor = fork()) < 0)
            throw std::runtime_error("no process to clean up after the test");
        if (m_janitor == 0)
        {
            setsid();
            close(ends[1]);
            char byte;
            while (read(ends[0], &byte, 1) < 0)
            {
            }
            removeAll();
            _exit(0);
        }
        close(ends[0]);
        m_lifeline = ends[1];
        lifelines().push_back(m_lifeline);
    }
    ~CSharedNames()
    {
        std::erase(lifelines(), m_lifeline);
        close(m_lifeline);
        waitpid(m_janitor, nullptr, 0);
    }
    CSharedNames(const CSharedNames&) = delete;
    CSharedNames& operator=(const CSharedNames&) = delete;

    const std::string& prefix() const { return m_prefix; }
    std::string name(const std::string& suffix) const { return m_prefix + suffix; }

    /// What a process that is to outlive the test must not keep open.
    static std::vector<int>& lifelines()
    {
        static std::vector<int> s_lifelines;
        return s_lifelines;
    }

private:
    static std::string ownPrefix()
    {
        static int s_count = 0;
        return "korvotest-" + std::to_string(getpid()) + "-" + std::to_string(s_count++) + "-";
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
    pid_t m_janitor = -1;
    int m_lifeline = -1;
};

/// A second process that runs `work` and ends with its result. Does not outlive the test.
class CChild
{
public:
    static constexpr int kStillRunning = -1;

    explicit CChild(const std::function<int()>& work) : m_process(fork())
    {
        if (m_process != 0)
            return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (const int lifeline : CSharedNames::lifelines())
            close(lifeline);
        _exit(work());
    }
    ~CChild() { kill(); }
    CChild(const CChild&) = delete;
    CChild& operator=(const CChild&) = delete;

    void kill()
    {
        if (m_process <= 0)
            return;
        ::kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
        m_process = -1;
    }

    /// The exit code, 128 and the signal's number if it was killed, or kStillRunning after that time.
    int wait(std::chrono::milliseconds timeout)
    {
        const auto end = std::chrono::steady_clock::now() + timeout;
        int status = 0;
        while (waitpid(m_process, &status, WNOHANG) == 0)
        {
            if (std::chrono::steady_clock::now() > end)
                return kStillRunning;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        m_process = -1;
        return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }

private:
    pid_t m_process;
};

/// Whether `condition` comes true within that time.
inline bool eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds timeout = std::chrono::seconds(20))
{
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (!condition())
    {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

} // namespace korvotest
