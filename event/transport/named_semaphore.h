// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>

/// A counting semaphore that one process publishes under a name and another finds by that name. What differs
/// between platforms is in named_semaphore.cpp and nowhere else.
namespace event::transport {

/// Number of a semaphore in this process; 0 is none. It stays valid until the process ends.
using SemaphoreHandle = std::uint32_t;

/** Makes the semaphore with count 0. One that an earlier run has left is taken over and its count drained, so
 * that clients who know it go on waking whoever waits here.
 *  @return 0 if the name cannot be had */
SemaphoreHandle createNamedSemaphore(const char* name);

/** Finds the semaphore of another process.
 *  @return 0 if there is none of that name */
SemaphoreHandle findNamedSemaphore(const char* name);

/** Adds one to the count. Threads: any. */
bool signalSemaphore(SemaphoreHandle handle);

/** Takes one off the count, waiting for it up to timeoutMs. False after that time; without a semaphore this
 * sleeps all the same, so that a loop around it does not spin. */
bool waitForSemaphore(SemaphoreHandle handle, unsigned int timeoutMs);

} // namespace event::transport
