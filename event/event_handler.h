// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "event/event.h"
#include "event/transport/transport.h"
#include "korvo_export.h"

namespace event {

/// Root of all handlers. An object takes events exactly as long as this part of it exists.
///
/// It is registered before the derived parts exist and until after they are gone, so construct the handlers
/// of a transport before the thread that delivers on it starts, and destroy them after it has stopped. Never
/// do either from inside an onEvent() of the same transport.
class KORVO_EXPORT CEventHandlerBase
{
public:
    const unsigned int id;                 ///< the event identity that this handler takes
    const transport::ETransport transport; ///< where it is registered; kTransportNone: nowhere

    /** Threads: any; waits while another thread delivers on this transport. */
    virtual ~CEventHandlerBase();

    /** Called for each event of the identity, on the delivering thread, with the transport's lock held. The
     * event may lie in the ring itself: copy what is to be kept. */
    virtual void onEvent(CEventBase const& event) = 0;

    CEventHandlerBase(const CEventHandlerBase&) = delete;
    CEventHandlerBase& operator=(const CEventHandlerBase&) = delete;

protected:
    /** Threads: any; waits while another thread delivers on this transport. */
    CEventHandlerBase(unsigned int eventId, transport::ETransport registerOn);
};

/// Derive from this, once for each event type to be taken, and write onEvent(T const&).
template<typename T, transport::ETransport registerOn>
class CEventHandler : public CEventHandlerBase
{
public:
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored                                                                               \
    "-Woverloaded-virtual" // a handler is to hide it: nobody calls it but the dispatcher
    // Meant: no test of the identity, the dispatcher has matched it.
    void onEvent(CEventBase const& event) override
    {
        onEvent(static_cast<T const&>(event));
    }
#pragma GCC diagnostic pop
    virtual void onEvent(T const& event) = 0;

protected:
    CEventHandler() : CEventHandlerBase(CEventIdBase<T>::identity(), registerOn) {}
};

} // namespace event
