// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "korvo_export.h"

namespace event::transport {

/// Wakes a thread of the same process. A notification is never lost: one that comes before the wait makes the
/// wait return at once. Two before a wait count as one.
class KORVO_EXPORT Event
{
public:
    static constexpr unsigned int s_kTimeOutInfinite = 0xFFFFFFFFU;

    Event();
    ~Event();
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;

    /** Sleeps until notify(), at most timeoutMs on the wall clock; 0 polls, s_kTimeOutInfinite (and all from
     * 2^31 on) sleeps for as long as it takes.
     *  @return true when notified, and takes the notification; false on time-out
     *  Threads: one at a time. */
    bool wait(unsigned int timeoutMs);

    /** Threads: any. Takes a lock that inherits priority, for the time of a store. */
    void notify();

private:
    struct SBlock;
    SBlock* block;
};

} // namespace event::transport
