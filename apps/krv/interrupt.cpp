// SPDX-License-Identifier: GPL-3.0-or-later
#include "apps/krv/interrupt.h"

#include <csignal>

#include "apps/krv/command.h"

namespace krv {

namespace {

volatile std::sig_atomic_t s_interrupted = 0;

constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};

void setHandler(int signal, void (*handler)(int), int flags)
{
    struct sigaction action
    {
    };
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigaction(signal, &action, nullptr);
}

} // namespace

CInterruptGuard::CInterruptGuard()
{
    for (const int signal : kSignals)
        setHandler(
            signal, [](int) { s_interrupted = 1; }, static_cast<int>(SA_RESETHAND));
    setHandler(SIGXFSZ, SIG_IGN, 0);
}

CInterruptGuard::~CInterruptGuard()
{
    for (const int signal : kSignals)
        setHandler(signal, SIG_DFL, 0);
    setHandler(SIGXFSZ, SIG_DFL, 0);
}

void CInterruptGuard::check() const
{
    if (s_interrupted != 0)
        throw CCommandError(kExitFailed, "interrupted; OUT has not been written");
}

} // namespace krv
