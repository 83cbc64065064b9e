// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <sys/time.h>
#include <time.h>

namespace event::transport {

/// The absolute time that lies timeoutMs behind now.
inline timespec deadlineAfter(const timeval& now, unsigned int timeoutMs)
{
    timespec deadline = {};
    deadline.tv_sec = now.tv_sec + static_cast<time_t>(timeoutMs / 1000);
    deadline.tv_nsec = (static_cast<long>(timeoutMs % 1000) * 1000 + now.tv_usec) * 1000;
    if (deadline.tv_nsec > 999999999)
    {
        deadline.tv_nsec -= 1000000000;
        ++deadline.tv_sec;
    }
    return deadline;
}

} // namespace event::transport
