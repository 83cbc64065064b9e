// SPDX-License-Identifier: GPL-3.0-or-later
#include "event/transport/ipc_storage.h"

#include <cstddef>
#include <cstdio>

#include "event/transport/message_ring.h"
#include "event/transport/virt_mem.h"

namespace event::transport {

namespace {

/// What both processes see at the beginning of the shared object; the data area follows.
struct SRingHeader
{
    std::uint32_t head; // bytes ever written, by the client
    std::uint32_t tail; // bytes ever consumed, by the server
};
static_assert(offsetof(SRingHeader, head) == 0 && offsetof(SRingHeader, tail) == 4 &&
                  sizeof(SRingHeader) == 8,
              "wire format between processes that need not be of one build");

constexpr std::uint32_t kRingHeaderBytes = sizeof(SRingHeader);

} // namespace

IpcStorage::IpcStorage(unsigned int bytes, const char* ringName, bool client)
    : name{}, owner(!client), size(bytes), mask(bytes - 1), handle(VirtMem::INVALID_NATIVE_HANDLE),
      base(nullptr), data(nullptr), head(nullptr), tail(nullptr)
{
    const auto alloc = [&](VirtMem::OpenFlags open) {
        return VirtMem::alloc(size + kRingHeaderBytes, ringName, open, VirtMem::kProtReadWrite, true, handle);
    };
    // A ring that is new is empty as it is. To reset it would lose what a client has put there since it could
    // attach, which is from the moment that the object has its size.
    void* memory = alloc(client ? VirtMem::kOpenExisting : VirtMem::kOpenCreateExclusive);
    const bool takenOver = memory == nullptr && owner;
    if (takenOver)
        memory = alloc(VirtMem::kOpenCreate);
    if (ringName != nullptr)
        std::snprintf(name, sizeof(name), "/%s", ringName);
    if (memory == nullptr)
        return;
    base = static_cast<unsigned char*>(memory);
    data = base + kRingHeaderBytes;
    head = reinterpret_cast<std::uint32_t*>(base + offsetof(SRingHeader, head));
    tail = reinterpret_cast<std::uint32_t*>(base + offsetof(SRingHeader, tail));
    if (handle != VirtMem::INVALID_NATIVE_HANDLE && owner)
        VirtMem::lock(base, size + kRingHeaderBytes); // a ring that could not be pinned still works
    if (takenOver && handle != VirtMem::INVALID_NATIVE_HANDLE)
    {
        // Clients of an earlier server may be attached: each of these pairs with others() on their side.
        ring::publish(*tail, 0);
        ring::publish(*head, 0);
    }
}

IpcStorage::~IpcStorage()
{
    cleanup();
}

void IpcStorage::cleanup()
{
    if (base != nullptr)
    {
        // Meant: without the header's 8 bytes. The page that they reach into stays mapped until the process
        // ends.
        VirtMem::unmap(base, size);
        base = nullptr;
    }
    if (handle != VirtMem::INVALID_NATIVE_HANDLE)
    {
        VirtMem::close(handle);
        handle = VirtMem::INVALID_NATIVE_HANDLE;
        if (owner)
            VirtMem::unlink(name);
    }
}

bool IpcStorage::checkInvariant() const
{
    return base != nullptr && handle != VirtMem::INVALID_NATIVE_HANDLE && (size & 0xFFF) == 0 &&
           ring::others(*head) % ring::kSlotAlignment == 0 && ring::others(*tail) % ring::kSlotAlignment == 0;
}

unsigned int IpcStorage::usedBytes() const
{
    return ring::others(*head) -
           ring::others(*tail); // acquire: either side may ask, and goes on to use what it finds
}

// No copies are kept between the calls: both counters share a cache line, and a server that restarts sets
// them back.

void* IpcStorage::allocMsgMem(unsigned int payloadBytes)
{
    std::uint32_t own = ring::own(*head);
    std::uint32_t seen = ring::others(*tail);
    return ring::allocMsgMem({*head, *tail, data, size, mask}, {own, seen}, payloadBytes);
}

void IpcStorage::post(void* message)
{
    if (message == nullptr)
        return;
    std::uint32_t own = ring::own(*head);
    std::uint32_t notRead = 0;
    ring::post({*head, *tail, data, size, mask}, {own, notRead}, ring::strideOf(message));
}

void* IpcStorage::nextMessage() const
{
    std::uint32_t own = ring::own(*tail);
    std::uint32_t seen = ring::others(*head);
    return ring::nextMessage({*head, *tail, data, size, mask}, {own, seen});
}

void IpcStorage::advanceToNext()
{
    std::uint32_t own = ring::own(*tail);
    std::uint32_t notRead = 0;
    ring::advanceToNext({*head, *tail, data, size, mask}, {own, notRead});
}

} // namespace event::transport
