// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "event/event.h"

/// A line of text for whoever watches: 260 bytes, identity 0x26FFE5A0. It lives outside all namespaces
/// because its encoded name, and with it the identity on the wire, must not change.
class CStatusNoteEvent : public event::CEventIdBase<CStatusNoteEvent>
{
public:
    char text[256] = {}; ///< UTF-8, zero-terminated
};

static_assert(sizeof(CStatusNoteEvent) == 260, "records of both sides have one layout");
