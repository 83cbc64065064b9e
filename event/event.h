// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <map>
#include <typeinfo>

#include "korvo_export.h"

/// Typed events that travel as flat records, and handlers that take them.
namespace event {

/// Root of all events, and the first word of every event record: a record in a ring and the object that a
/// handler receives are the same bytes. An event has no virtual operations, no pointers and no owned memory,
/// since nobody ever runs a destructor on a record.
class KORVO_EXPORT CEventBase
{
public:
    unsigned int id = 0;

    /** The identity of a type, computed from its encoded name, so that two processes agree without a shared
     * table: h = h * 0x811C9DC5 ^ c over the characters, from h = 0. Enters the name in CTypeHolder unless
     * the identity is there already. Threads: before threads start that use the registry. s_kId calls it
     * while the program is loaded. */
    static unsigned int hash(std::type_info const& type);

    /** The registered name for this event's identity, as the compiler encodes it, or "N/A".
     *  Threads: any. */
    const char* GetTypeName() const;
};

/// Base of each concrete event: class CMyEvent : public event::CEventIdBase<CMyEvent>, with the payload as
/// fields.
template<typename T>
class CEventIdBase : public CEventBase
{
public:
    /// The identity of T, set once while the program is loaded.
    static const unsigned int s_kId;

    /// s_kId, also for static objects that are initialised before it is. Naming s_kId here has it set at load
    /// time.
    static unsigned int identity() { return s_kId != 0 ? s_kId : CEventBase::hash(typeid(T)); }

protected:
    CEventIdBase() { id = identity(); }
};

template<typename T>
const unsigned int CEventIdBase<T>::s_kId = CEventBase::hash(typeid(T));

/// Names by identity, one registry for the process, this library and its host together. The texts belong to
/// the type_info objects: a module that is unloaded again takes the texts of its event types along.
///  Threads: written while modules are loaded, then read by any thread; there is no lock.
class KORVO_EXPORT CTypeHolder : public std::map<unsigned int, const char*>
{
public:
    static CTypeHolder& instance();

private:
    CTypeHolder() = default;
};

/** The registered name for an identity, as the compiler encodes it, or "N/A". Never null.
 *  Threads: any. */
KORVO_EXPORT const char* GetTypeNameForId(unsigned int id);

} // namespace event
