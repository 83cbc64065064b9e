// SPDX-License-Identifier: GPL-3.0-or-later
#include "event/event_handler.h"

#include "event/dispatcher.h"

namespace event {

CEventHandlerBase::CEventHandlerBase(unsigned int eventId, transport::ETransport registerOn)
    : id(eventId), transport(registerOn)
{
    if (transport != transport::kTransportNone)
        dispatch::RegisterHandler(transport, *this);
}

CEventHandlerBase::~CEventHandlerBase()
{
    if (transport != transport::kTransportNone)
        dispatch::UnregisterHandler(transport, *this);
}

} // namespace event
