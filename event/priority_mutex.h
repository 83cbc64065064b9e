// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <pthread.h>

#include <cerrno>

namespace event {

/// Sets up a mutex that lends the priority of whoever waits to whoever holds it.
inline void initPriorityMutex(pthread_mutex_t& mutex, int type)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, type);
    pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_INHERIT);
    // A kernel without such futexes: a plain mutex is still right, if less prompt.
    if (pthread_mutex_init(&mutex, &attributes) == ENOTSUP)
    {
        pthread_mutexattr_setprotocol(&attributes, PTHREAD_PRIO_NONE);
        pthread_mutex_init(&mutex, &attributes);
    }
    pthread_mutexattr_destroy(&attributes);
}

/// Holds a mutex for a scope, also when an exception ends it.
class CMutexLock
{
public:
    explicit CMutexLock(pthread_mutex_t& mutex) : m_mutex(mutex) { pthread_mutex_lock(&m_mutex); }
    ~CMutexLock() { pthread_mutex_unlock(&m_mutex); }
    CMutexLock(const CMutexLock&) = delete;
    CMutexLock& operator=(const CMutexLock&) = delete;

private:
    pthread_mutex_t& m_mutex;
};

} // namespace event
