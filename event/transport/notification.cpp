// SPDX-License-Identifier: GPL-3.0-or-later
#include "event/transport/notification.h"

#include "event/transport/named_semaphore.h"

namespace event::transport {

IpcNotificationBase::IpcNotificationBase(const char* name, bool client)
    : semaphore(client ? findNamedSemaphore(name) : createNamedSemaphore(name))
{
}

void IpcNotificationBase::forceNotify()
{
    signalSemaphore(semaphore);
}

IpcPoster::IpcPoster(const char* name) : IpcNotificationBase(name, true) {}

bool IpcPoster::post()
{
    return signalSemaphore(semaphore);
}

IpcWaiter::IpcWaiter(const char* name) : IpcNotificationBase(name, false) {}

bool IpcWaiter::wait(unsigned int timeoutMs)
{
    return waitForSemaphore(semaphore, timeoutMs);
}

} // namespace event::transport
