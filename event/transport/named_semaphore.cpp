// SPDX-License-Identifier: GPL-3.0-or-later
#include "event/transport/named_semaphore.h"

#include <fcntl.h>
#include <semaphore.h>
#include <time.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <string>

#include "event/transport/deadline.h"

namespace event::transport {

namespace {

// A process has one or two for each transport that it uses; they are never given back.
constexpr std::size_t kMaxSemaphores = 1024;
std::array<std::atomic<sem_t*>, kMaxSemaphores> s_semaphores;
std::mutex s_enterMutex;

SemaphoreHandle enter(sem_t* semaphore)
{
    const std::lock_guard lock(s_enterMutex);
    for (std::size_t i = 0; i < kMaxSemaphores; ++i)
    {
        // Relaxed: the lock orders entries among each other.
        sem_t* const entry = s_semaphores[i].load(std::memory_order_relaxed);
        if (entry == nullptr)
            s_semaphores[i].store(semaphore, std::memory_order_release); // pairs with the load in find()
        else if (entry == semaphore)
            ::sem_close(
                semaphore); // opened twice under one name gives one address; the first opening keeps it
        else
            continue;
        return static_cast<SemaphoreHandle>(i + 1);
    }
    ::sem_close(semaphore);
    return 0;
}

sem_t* find(SemaphoreHandle handle)
{
    // Acquire: pairs with the store in enter(), or another thread could miss what sem_open() has set up.
    return handle == 0 || handle > kMaxSemaphores ? nullptr
                                                  : s_semaphores[handle - 1].load(std::memory_order_acquire);
}

void drain(sem_t* semaphore)
{
    int count = 0;
    ::sem_getvalue(semaphore, &count);
    // Counted, so that a client that keeps posting cannot hold the server here.
    while (count-- > 0 && ::sem_trywait(semaphore) == 0)
    {
    }
}

std::string withSlash(const char* name)
{
    return name[0] == '/' ? name : std::string("/") + name;
}

} // namespace

SemaphoreHandle createNamedSemaphore(const char* name)
{
    sem_t* semaphore = ::sem_open(withSlash(name).c_str(), O_CREAT, 0666, 0);
    if (semaphore == SEM_FAILED)
        return 0;
    drain(semaphore);
    return enter(semaphore);
}

SemaphoreHandle findNamedSemaphore(const char* name)
{
    sem_t* semaphore = ::sem_open(withSlash(name).c_str(), 0);
    return semaphore == SEM_FAILED ? 0 : enter(semaphore);
}

bool signalSemaphore(SemaphoreHandle handle)
{
    sem_t* semaphore = find(handle);
    return semaphore != nullptr && ::sem_post(semaphore) == 0;
}

bool waitForSemaphore(SemaphoreHandle handle, unsigned int timeoutMs)
{
    // The monotonic clock: setting the wall clock must not stretch a wait.
    timespec now = {};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const timespec deadline = deadlineAfter(now, timeoutMs);
    sem_t* semaphore = find(handle);
    if (semaphore == nullptr)
    {
        while (::clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR)
        {
        }
        return false;
    }
    while (::sem_clockwait(semaphore, CLOCK_MONOTONIC, &deadline) != 0)
    {
        if (errno != EINTR)
            return false;
    }
    return true;
}

} // namespace event::transport
