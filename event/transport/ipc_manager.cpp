// SPDX-License-Identifier: GPL-3.0-or-later
#include "event/transport/ipc_manager.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

using event::transport::ETransport;
using event::transport::IpcPoster;
using event::transport::IpcStorage;
using event::transport::IpcWaiter;

namespace {

constexpr unsigned int kRingBytes = 65536;

char s_prefixIpc[64] = {}; // not terminated when full

/// One name of a channel: the prefix, `kind` and the transport's number.
struct SChannelName
{
    SChannelName(const char* kind, ETransport transport)
    {
        std::snprintf(text, sizeof(text), "%.64s_%s_%d", s_prefixIpc, kind, static_cast<int>(transport));
    }
    char text[512];
};

} // namespace

void SetIpcSharePrefix(const char* prefix)
{
    std::fill_n(s_prefixIpc, sizeof(s_prefixIpc), '\0');
    if (prefix != nullptr)
        std::copy_n(prefix, strnlen(prefix, sizeof(s_prefixIpc)), s_prefixIpc);
}

IpcManager& IpcManager::instance()
{
    static IpcManager manager;
    return manager;
}

IpcManager::~IpcManager()
{
    for (const auto& [key, channel] : *this)
    {
        delete channel.first;
        if (key.second)
            delete static_cast<IpcPoster*>(channel.second);
        else
            delete static_cast<IpcWaiter*>(channel.second);
    }
}

IpcManager::mapped_type* IpcManager::newEntry(ETransport transport, bool client)
{
    const SChannelName semaphoreName("s", transport);
    const SChannelName ringName("m", transport);
    mapped_type channel = {nullptr, nullptr};
    // Owned here until the table has them, in case it cannot grow.
    std::unique_ptr<IpcStorage> storage;
    std::unique_ptr<IpcPoster> poster;
    std::unique_ptr<IpcWaiter> waiter;
    if (client)
    {
        storage = std::make_unique<IpcStorage>(kRingBytes, ringName.text, true);
        if (storage->good())
        {
            poster = std::make_unique<IpcPoster>(semaphoreName.text);
            channel = {storage.get(), poster.get()};
        }
    }
    else
    {
        // The semaphore first: a client that sees the ring finds the semaphore as well.
        waiter = std::make_unique<IpcWaiter>(semaphoreName.text);
        storage = std::make_unique<IpcStorage>(kRingBytes, ringName.text, false);
        channel = {storage.get(), waiter.get()};
    }
    mapped_type& entry = insert_or_assign({transport, client}, channel).first->second;
    if (entry.first != nullptr)
    {
        static_cast<void>(storage.release());
        static_cast<void>(poster.release());
        static_cast<void>(waiter.release());
    }
    return &entry;
}

namespace event::transport {

namespace {

/// The channel as it stands, made if there is none. A client without its server tries again.
IpcManager::mapped_type& channelOf(ETransport transport, bool client)
{
    IpcManager& manager = IpcManager::instance();
    const auto entry = manager.find({transport, client});
    if (entry == manager.end() || (client && entry->second.first == nullptr))
        return *manager.newEntry(transport, client);
    return entry->second;
}

} // namespace

IpcStorage* GetIpcStorage(ETransport transport, bool client)
{
    return channelOf(transport, client).first;
}

IpcPoster* GetIpcPoster(ETransport transport)
{
    return static_cast<IpcPoster*>(channelOf(transport, true).second);
}

IpcWaiter* GetIpcWaiter(ETransport transport)
{
    return static_cast<IpcWaiter*>(channelOf(transport, false).second);
}

} // namespace event::transport
