// SPDX-License-Identifier: GPL-3.0-or-later
#include "event/transport/thread_event.h"

#include <pthread.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdint>

#include "event/priority_mutex.h"
#include "event/transport/deadline.h"

namespace event::transport {

struct Event::SBlock
{
    pthread_cond_t condition;
    pthread_mutex_t mutex;
    bool signalled = false;
    bool manualReset = false;
};

Event::Event() : block(new SBlock)
{
    pthread_cond_init(&block->condition, nullptr);
    initPriorityMutex(block->mutex, PTHREAD_MUTEX_DEFAULT);
}

Event::~Event()
{
    pthread_cond_destroy(&block->condition);
    pthread_mutex_destroy(&block->mutex);
    delete block;
    block = nullptr;
}

bool Event::wait(unsigned int timeoutMs)
{
    const CMutexLock lock(block->mutex);
    if (static_cast<std::int32_t>(timeoutMs) < 0)
    {
        while (!block->signalled)
            pthread_cond_wait(&block->condition, &block->mutex);
    }
    else if (!block->signalled)
    {
        timeval now = {};
        gettimeofday(&now, nullptr);
        const timespec deadline = deadlineAfter({now.tv_sec, now.tv_usec * 1000}, timeoutMs);
        while (!block->signalled)
        {
            // Meant: on a time-out the flag is not looked at again; a notification stays for the next wait.
            if (pthread_cond_timedwait(&block->condition, &block->mutex, &deadline) == ETIMEDOUT)
                return false;
        }
    }
    if (!block->manualReset)
        block->signalled = false;
    return true;
}

void Event::notify()
{
    const CMutexLock lock(block->mutex);
    block->signalled = true;
    pthread_cond_broadcast(&block->condition);
}

} // namespace event::transport
