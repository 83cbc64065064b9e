// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <pthread.h>

#include <map>
#include <vector>

#include "event/event.h"
#include "event/transport/transport.h"
#include "korvo_export.h"

namespace event {

class CEventHandlerBase;

namespace transport {

class IpcStorage;
class IpcWaiter;

/// The server's view of a transport. Owns nothing; fill it from GetIpcStorage(transport, false).
struct TransportServer
{
    IpcStorage* storage = nullptr;         ///< the ring to take messages from
    ETransport transport = kTransportNone; ///< which handlers to call
};

/// The same, with what to sleep on while the ring is empty: GetIpcWaiter(transport).
struct TransportServerSynced : TransportServer
{
    IpcWaiter* waiter = nullptr;
};

} // namespace transport

namespace dispatch {

enum EDispatchResult
{
    kDispatched = 0, ///< every handler of the identity was called
    kNoMessage = 1,  ///< the ring was empty
    kNoHandler = 2   ///< nobody takes this identity; a message from a ring is gone all the same
};

} // namespace dispatch

/// The handlers of one transport, under one recursive lock that inherits priority. The lock is held while
/// handlers run: a handler may deliver events itself, also on its own transport, and a handler that another
/// thread removes is gone when that call returns.
class KORVO_EXPORT CDispatcher
{
public:
    /// The dispatcher of a transport; kTransportNone has one as well. The value is not checked.
    static CDispatcher& instance(transport::ETransport transport);

    void registerHandler(CEventHandlerBase& handler);
    void unregisterHandler(CEventHandlerBase& handler);
    dispatch::EDispatchResult dispatchEvent(CEventBase const& event);

    CDispatcher(const CDispatcher&) = delete;
    CDispatcher& operator=(const CDispatcher&) = delete;

private:
    using Handlers = std::vector<CEventHandlerBase*>;
    class CWalk;

    CDispatcher();
    ~CDispatcher();

    std::map<unsigned int, Handlers> handlers; // by identity, oldest first; no entry without a handler
    pthread_mutex_t mutex;
    unsigned int walks = 0;    // deliveries under way, nested in one thread
    bool entryEmptied = false; // a list ran empty under a walk; its entry goes when the outermost walk ends
};

/// What the bus offers to both of its ends. Exceptions of handlers pass through to the caller, with the lock
/// released; the handlers behind the one that threw are not called.
namespace dispatch {

/** Appends a handler to those of its identity. Twice registered is twice called.
 *  Threads: any; waits while another thread delivers on this transport. Not from inside an onEvent() of it.
 */
KORVO_EXPORT void RegisterHandler(transport::ETransport transport, CEventHandlerBase& handler);

/** Removes the oldest registration of a handler, if there is one.
 *  Threads: as RegisterHandler(). */
KORVO_EXPORT void UnregisterHandler(transport::ETransport transport, CEventHandlerBase& handler);

/** Calls the handlers of the event's identity, oldest first, in the caller's thread.
 *  @return kDispatched, kNoHandler
 *  Threads: any, also from inside an onEvent(). Allocates nothing. */
KORVO_EXPORT EDispatchResult DispatchEvent(CEventBase const& event, transport::ETransport transport);

/** Takes one message from the ring and delivers it in place. The slot is released after the last handler has
 *  returned; if one throws, the message stays and the next call delivers it again to all.
 *  @param unhandledId receives the identity of a message that found no handler, else untouched; may be null
 *  @return kDispatched, kNoMessage, kNoHandler (the message is consumed)
 *  Threads: the one consumer of this ring. */
KORVO_EXPORT EDispatchResult DispatchEventForServer(transport::TransportServer& server,
                                                    unsigned int* unhandledId);

/** The same, and sleeps up to timeoutMs if the ring is empty, at most once: a wake-up that finds the ring
 * still empty returns kNoMessage. That is ordinary, since wake-ups can outlive their messages. Call it in a
 * loop. Threads: the one consumer of this ring. */
KORVO_EXPORT EDispatchResult DispatchEventForServer(transport::TransportServerSynced& server,
                                                    unsigned int timeoutMs, unsigned int* unhandledId);

} // namespace dispatch

} // namespace event
