// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>

#include "korvo_export.h"

namespace event::transport {

/// One end of the wake-up from a client to its server: a counting semaphore with a name. It says that
/// something may be in the ring, and nothing more. The semaphore outlives this object and, on Linux, the
/// process.
class KORVO_EXPORT IpcNotificationBase
{
public:
    /** @param client true looks the semaphore up, false makes it. Where that fails, all calls do nothing. */
    IpcNotificationBase(const char* name, bool client);
    IpcNotificationBase(const IpcNotificationBase&) = delete;
    IpcNotificationBase& operator=(const IpcNotificationBase&) = delete;

    /** Wakes the server. Threads: any. Real time: no; one system call if the server sleeps. */
    void forceNotify();

protected:
    std::uint32_t semaphore; // 0: none
};

/// The client's end.
class KORVO_EXPORT IpcPoster : public IpcNotificationBase
{
public:
    /** Looks up what the server has made. */
    explicit IpcPoster(const char* name);

    /** Wakes the server. @return whether there was a semaphore to signal
     *  Threads: any. Real time: no; one system call if the server sleeps. */
    bool post();
};

/// The server's end.
class KORVO_EXPORT IpcWaiter : public IpcNotificationBase
{
public:
    /** Makes the semaphore with count 0, or takes over the one that an earlier server has left. */
    explicit IpcWaiter(const char* name);

    /** Sleeps until a client posts, at most timeoutMs; 0 polls. @return true when signalled
     *  Threads: the server's pump. */
    bool wait(unsigned int timeoutMs);
};

} // namespace event::transport
