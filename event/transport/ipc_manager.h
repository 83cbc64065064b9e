// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <map>
#include <utility>

#include "event/transport/ipc_storage.h"
#include "event/transport/notification.h"
#include "event/transport/transport.h"
#include "korvo_export.h"

/// The channels of this process, each a ring and its wake-up, by transport and role (true: client). Made when
/// first asked for; ends with the process, and threads that use channels must have stopped by then. Most
/// programs need GetIpcStorage() and its siblings only.
///  Threads: one at a time, here and in the functions below. The pointers that they give are used freely.
class KORVO_EXPORT IpcManager
    : public std::map<std::pair<event::transport::ETransport, bool>,
                      std::pair<event::transport::IpcStorage*, event::transport::IpcNotificationBase*>>
{
public:
    static IpcManager& instance();

    /** Makes the channel of this role, whether there is one or not. A client that finds no ring gets an entry
     * of two null pointers. */
    mapped_type* newEntry(event::transport::ETransport transport, bool client);

    IpcManager(const IpcManager&) = delete;
    IpcManager& operator=(const IpcManager&) = delete;

private:
    IpcManager() = default;
    ~IpcManager();
};

/** Sets what the names of all channels begin with; both processes set the same. Call it before the first
 * channel is made. At most 64 characters count. */
KORVO_EXPORT void SetIpcSharePrefix(const char* prefix);

namespace event::transport {

/** The ring of a transport. As client: null until the server is up, so ask again. As server: never null, but
 *  IpcStorage::good() tells whether it could be made; ask for GetIpcWaiter() first. */
KORVO_EXPORT IpcStorage* GetIpcStorage(ETransport transport, bool client);

/** What a client wakes its server with; null until the server is up. */
KORVO_EXPORT IpcPoster* GetIpcPoster(ETransport transport);

/** What a server sleeps on. */
KORVO_EXPORT IpcWaiter* GetIpcWaiter(ETransport transport);

} // namespace event::transport
