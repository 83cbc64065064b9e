// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <time.h>

namespace event::transport {

/// The time that is timeoutMs later than `now`, on the same clock.
inline timespec deadlineAfter(const timespec& now, unsigned int timeoutMs)
{
    timespec deadline = {};
    deadline.tv_sec = now.tv_sec + static_cast<time_t>(timeoutMs / 1000);
    deadline.tv_nsec = now.tv_nsec + static_cast<long>(timeoutMs % 1000) * 1000000;
    if (deadline.tv_nsec > 999999999)
    {
        deadline.tv_nsec -= 1000000000;
        ++deadline.tv_sec;
    }
    return deadline;
}

} // namespace event::transport
