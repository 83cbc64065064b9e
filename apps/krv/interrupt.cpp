// SPDX-License-Identifier: GPL-3.0-or-later
#include "apps/krv/interrupt.h"

#include <unistd.h>

#include <atomic>
#include <csignal>

#include "apps/krv/command.h"

namespace krv {

namespace {

std::atomic<bool> s_interrupted = false;
std::atomic<const char*> s_unfinished = nullptr;
static_assert(std::atomic<const char*>::is_always_lock_free); // a handler may touch nothing else

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

void onSignal(int signal)
{
    if (!s_interrupted)
    {
        s_interrupted = true;
        return;
    }
    // timeout(1) and its like send their signal twice.
    if (const char* path = s_unfinished)
        unlink(path);
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

/// Leaves alone what is ignored.
void setHandler(int signal, void (*handler)(int))
{
    struct sigaction action
    {
    };
    sigaction(signal, nullptr, &action);
    if (action.sa_handler == SIG_IGN)
        return;
    action.sa_handler = handler;
    action.sa_flags = 0;
    sigaction(signal, &action, nullptr);
}

} // namespace

void removeIfKilled(const char* path)
{
    s_unfinished = path;
}

CInterruptGuard::CInterruptGuard()
{
    for (const int signal : kSignals)
        setHandler(signal, onSignal);
    setHandler(SIGXFSZ, SIG_IGN);
}

CInterruptGuard::~CInterruptGuard()
{
    for (const int signal : kSignals)
        setHandler(signal, SIG_DFL);
}

void CInterruptGuard::check() const
{
    if (s_interrupted)
        throw CCommandError(kExitFailed, "interrupted; OUT has not been written");
}

} // namespace krv
