// SPDX-License-Identifier: GPL-3.0-or-later
#include "event/dispatcher.h"

#include <algorithm>

#include "event/event_handler.h"
#include "event/priority_mutex.h"
#include "event/transport/ipc_storage.h"
#include "event/transport/notification.h"

namespace event {

/// Marks a delivery, so that a list that runs empty meanwhile stays where the walk can look at it.
class CDispatcher::CWalk
{
public:
    explicit CWalk(CDispatcher& dispatcher) : m_dispatcher(dispatcher) { ++m_dispatcher.walks; }
    ~CWalk()
    {
        if (--m_dispatcher.walks != 0 || !m_dispatcher.entryEmptied)
            return;
        m_dispatcher.entryEmptied = false;
        std::erase_if(m_dispatcher.handlers, [](const auto& entry) { return entry.second.empty(); });
    }
    CWalk(const CWalk&) = delete;
    CWalk& operator=(const CWalk&) = delete;

private:
    CDispatcher& m_dispatcher;
};

CDispatcher::CDispatcher()
{
    initPriorityMutex(mutex, PTHREAD_MUTEX_RECURSIVE);
}

CDispatcher::~CDispatcher()
{
    pthread_mutex_destroy(&mutex);
}

CDispatcher& CDispatcher::instance(transport::ETransport transport)
{
    static CDispatcher dispatchers[transport::kTransportNone + 1];
    return dispatchers[transport];
}

void CDispatcher::registerHandler(CEventHandlerBase& handler)
{
    const CMutexLock lock(mutex);
    const auto entry = handlers.try_emplace(handler.id).first;
    try
    {
        entry->second.push_back(&handler);
    }
    catch (...)
    {
        if (entry->second.empty())
            handlers.erase(entry);
        throw;
    }
}

void CDispatcher::unregisterHandler(CEventHandlerBase& handler)
{
    const CMutexLock lock(mutex);
    const auto entry = handlers.find(handler.id);
    if (entry == handlers.end())
        return;
    Handlers& list = entry->second;
    const auto position = std::find(list.begin(), list.end(), &handler);
    if (position == list.end())
        return;
    list.erase(position);
    if (!list.empty())
        return;
    if (walks == 0)
        handlers.erase(entry);
    else
        entryEmptied = true;
}

dispatch::EDispatchResult CDispatcher::dispatchEvent(CEventBase const& event)
{
    const CMutexLock lock(mutex);
    const auto entry = handlers.find(event.id);
    if (entry == handlers.end())
        return dispatch::kNoHandler;
    // Handlers are not to change the list from here. Where one does, a removal makes the walk skip the next
    // handler; an index that is compared with the current size keeps that from becoming an access past the
    // end.
    const CWalk walk(*this);
    const Handlers& list = entry->second;
    for (std::size_t i = 0; i < list.size(); ++i)
        list[i]->onEvent(event);
    return dispatch::kDispatched;
}

namespace dispatch {

void RegisterHandler(transport::ETransport transport, CEventHandlerBase& handler)
{
    CDispatcher::instance(transport).registerHandler(handler);
}

void UnregisterHandler(transport::ETransport transport, CEventHandlerBase& handler)
{
    CDispatcher::instance(transport).unregisterHandler(handler);
}

EDispatchResult DispatchEvent(CEventBase const& event, transport::ETransport transport)
{
    return CDispatcher::instance(transport).dispatchEvent(event);
}

EDispatchResult DispatchEventForServer(transport::TransportServer& server, unsigned int* unhandledId)
{
    const void* message = server.storage->nextMessage();
    if (message == nullptr)
        return kNoMessage;
    CEventBase const& event = *static_cast<CEventBase const*>(message);
    const unsigned int id = event.id;
    const EDispatchResult result = DispatchEvent(event, server.transport);
    if (result == kNoHandler && unhandledId != nullptr)
        *unhandledId = id;
    server.storage->advanceToNext();
    return result;
}

EDispatchResult DispatchEventForServer(transport::TransportServerSynced& server, unsigned int timeoutMs,
                                       unsigned int* unhandledId)
{
    transport::TransportServer& unsynced = server;
    const EDispatchResult result = DispatchEventForServer(unsynced, unhandledId);
    if (result != kNoMessage || !server.waiter->wait(timeoutMs))
        return result;
    return DispatchEventForServer(unsynced, unhandledId);
}

} // namespace dispatch

} // namespace event
