// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "korvo_export.h"

/// Ways for events between threads (LocalStorage, Event) and between processes (IpcStorage, GetIpcPoster()
/// ...).
namespace event::transport {

/// Numbered routes for events, alike in every way. Each has its handlers and its pair of processes.
enum ETransport : int
{
    kTransport0 = 0,
    kTransport1 = 1,
    kTransport2 = 2,
    kTransport3 = 3,
    kTransport4 = 4,
    kTransport5 = 5,
    kTransport6 = 6,
    kTransport7 = 7,
    kTransport8 = 8,   ///< the library's own in-process handlers are on this one
    kTransportNone = 9 ///< handlers made with it are not registered
};

/** Whether a ring under the transport's fixed name can be attached.
 *  Meant: these names are not those of the rings that IpcManager makes, which this call does not see.
 *  Threads: any. */
KORVO_EXPORT bool TransportEndpointExists(ETransport transport);

} // namespace event::transport
