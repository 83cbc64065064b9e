// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>

/// The one algorithm behind LocalStorage and IpcStorage: a ring of variable-sized slots between one writer
/// and one reader, without a lock.
///
///   data:  | slot | slot | free ...        | slot | slot | skip |
///            ^ oldest      ^ head & mask     ...
///   slot:  | stride (4) | reserved (4) | payload, padded to a multiple of 8 |
///
/// head and tail count bytes from the ring's beginning and wrap past 2^32 freely. Only the writer stores
/// head, only the reader stores tail. A slot never crosses the end of the data: a skip record, of negative
/// stride, fills what is left there.
///
/// In shared memory the other side may be a process that has gone wrong or that has been replaced while it
/// wrote. What it can leave behind must not lead out of the data or into an endless loop.
namespace event::transport::ring {

struct SSlotHeader
{
    std::int32_t
        stride; ///< whole slot in bytes; negative: skip record, minus the bytes to the end of the data
    std::uint32_t reserved; ///< never written and never read
};
static_assert(sizeof(SSlotHeader) == 8 && offsetof(SSlotHeader, stride) == 0);
static_assert(std::atomic_ref<std::uint32_t>::is_always_lock_free &&
                  std::atomic_ref<std::uint32_t>::required_alignment <= 4,
              "the counters are plain words that two processes share");

constexpr std::uint32_t kHeaderBytes = sizeof(SSlotHeader);
constexpr std::uint32_t kSlotAlignment = 8;

/// One ring as its owner keeps it.
struct SView
{
    std::uint32_t& head;
    std::uint32_t& tail;
    unsigned char* data;
    std::uint32_t size;
    std::uint32_t mask;
};

/// What one side works with beside the ring: copies on memory of its own. A look at a shared counter, its own
/// included, fetches the cache line back from the other side, which polls it.
struct SEnd
{
    std::uint32_t& own;  ///< its counter, as it has published it
    std::uint32_t& seen; ///< the other side's, as it saw it last
};

/// The protocol's full barrier. The counters' acquire and release order the data by themselves; this one also
/// keeps a post() ahead of the wake-up that follows it, and an older reader or writer on the other side
/// counts on it.
inline void fullBarrier()
{
#if defined(__SANITIZE_THREAD__) // which does not know fences
#elif defined(__x86_64__)
    // As the fence below, but not on the return address, for which the caller's `ret` would then wait.
    asm volatile("lock orl $0, -8(%%rsp)" ::: "memory", "cc");
#else
    std::atomic_thread_fence(std::memory_order_seq_cst);
#endif
}

/// Asks for a cache line to write to, ahead of the stores, for which a barrier would wait one after another.
inline void fetchForWriting(const unsigned char* address)
{
#if defined(__x86_64__)
    // Not the builtin: without a flag for newer processors it asks for a line to read. Where the instruction
    // is not known it does nothing.
    asm volatile("prefetchw %0" : : "m"(*address));
#else
    __builtin_prefetch(address, 1);
#endif
}

/// A counter as its only writer reads it: no other side stores to it.
inline std::uint32_t own(std::uint32_t& counter)
{
    return std::atomic_ref(counter).load(std::memory_order_relaxed);
}

/// A counter of the other side. Pairs with publish(): of head, or the reader could see a slot before its
/// contents; of tail, or the writer could reuse a slot before the reader's last look at it.
inline std::uint32_t others(std::uint32_t& counter)
{
    return std::atomic_ref(counter).load(std::memory_order_acquire);
}

/// Moves a counter on. Pairs with others() on the other side, for which see there.
inline void publish(std::uint32_t& counter, std::uint32_t value)
{
    std::atomic_ref(counter).store(value, std::memory_order_release);
}

inline std::uint32_t offsetAt(const SView& ring, std::uint32_t counter)
{
    return counter & ring.mask & ~(kSlotAlignment - 1);
}

inline std::int32_t& strideAt(const SView& ring, std::uint32_t counter)
{
    return reinterpret_cast<SSlotHeader*>(ring.data + offsetAt(ring, counter))->stride;
}

/// Relaxed: others() of head has ordered it. Atomic, so that a value once checked is the value used.
inline std::uint32_t loadStride(const SView& ring, std::uint32_t counter)
{
    return static_cast<std::uint32_t>(
        std::atomic_ref(strideAt(ring, counter)).load(std::memory_order_relaxed));
}

/// Relaxed: publish() of head follows and orders it.
inline void storeStride(const SView& ring, std::uint32_t counter, std::uint32_t stride)
{
    std::atomic_ref(strideAt(ring, counter))
        .store(static_cast<std::int32_t>(stride), std::memory_order_relaxed);
}

inline bool isSkip(std::uint32_t stride)
{
    return static_cast<std::int32_t>(stride) < 0;
}

/// A payload with its header, rounded up.
inline std::uint32_t strideFor(std::uint32_t payloadBytes)
{
    return (payloadBytes + 15) & ~(kSlotAlignment - 1);
}

/// Whether a message or skip record with this stride can lie at this place.
inline bool isPossible(const SView& ring, std::uint32_t counter, std::uint32_t stride)
{
    const std::uint32_t offset = offsetAt(ring, counter);
    const std::uint32_t room = ring.size - offset;
    if (isSkip(stride))
        return offset != 0 && 0 - stride == room;
    return stride >= kHeaderBytes && stride % kSlotAlignment == 0 && stride <= room;
}

/// Whether it can be, and lies between counters that can be.
inline bool isWithin(const SView& ring, std::uint32_t tail, std::uint32_t head, std::uint32_t stride)
{
    const std::uint32_t used = head - tail;
    return (head | tail) % kSlotAlignment == 0 && used <= ring.size &&
           (isSkip(stride) ? 0 - stride : stride) <= used && isPossible(ring, tail, stride);
}

/// Looks at the other side's counter only where the last look does not suffice. An older value makes the ring
/// look fuller, never emptier.
inline bool hasSpace(const SView& ring, const SEnd& writer, std::uint32_t stride)
{
    // Signed, so that a tail ahead of its head, as a restarted server can leave for a moment, reads as free
    // space.
    const auto fits = [&] {
        return static_cast<std::int32_t>(stride) <=
               static_cast<std::int32_t>(ring.size - (writer.own - writer.seen));
    };
    if (fits())
        return true;
    writer.seen = others(ring.tail);
    return fits();
}

/// Fetches a slot's lines, which the reader had last, all at once. No more than fit into a first-level cache
/// beside the message.
inline void fetchSlot(const unsigned char* slot, std::uint32_t stride)
{
    constexpr std::uint32_t kLine = 64;
    constexpr std::uint32_t kMostLines = 64;
    const std::uint32_t end = std::min(stride, kMostLines * kLine);
    for (std::uint32_t offset = 0; offset < end; offset += kLine)
        fetchForWriting(slot + offset);
}

/// Writer: the payload of a new slot, or null while the ring has no space for it.
inline void* allocMsgMem(const SView& ring, const SEnd& writer, std::uint32_t payloadBytes)
{
    if (std::uint64_t{payloadBytes} + kHeaderBytes > ring.size)
        return nullptr; // fits at no time, and the stride below could wrap
    const std::uint32_t stride = strideFor(payloadBytes);
    if (!hasSpace(ring, writer, stride))
        return nullptr;
    const std::uint32_t room = ring.size - offsetAt(ring, writer.own);
    if (stride > room)
    {
        storeStride(ring, writer.own, 0 - room);
        writer.own += room;
        publish(ring.head, writer.own); // at once: the reader may take the skip record before any message
        if (!hasSpace(ring, writer, stride))
            return nullptr;
    }
    unsigned char* slot = ring.data + offsetAt(ring, writer.own);
    fetchSlot(slot, stride);
    storeStride(ring, writer.own, stride);
    return slot + kHeaderBytes;
}

/// The stride that allocMsgMem() has written before `message`.
inline std::uint32_t strideOf(const void* message)
{
    const auto* slot =
        reinterpret_cast<const SSlotHeader*>(static_cast<const unsigned char*>(message) - kHeaderBytes);
    return static_cast<std::uint32_t>(slot->stride);
}

/// Writer: makes the slot of this stride visible to the reader.
inline void post(const SView& ring, const SEnd& writer, std::uint32_t stride)
{
    writer.own += stride;
    publish(ring.head, writer.own);
    fullBarrier(); // apart from the store, whose cache line is then fetched beside those of the message
}

/// Reader: moves tail.
inline void moveTail(const SView& ring, const SEnd& reader, std::uint32_t tail)
{
    reader.own = tail;
    publish(ring.tail, tail);
}

/// Reader: gives up what is in the ring, since nothing behind an impossible slot can be found.
inline void discardAll(const SView& ring, const SEnd& reader)
{
    reader.seen = others(ring.head);
    if (reader.seen % kSlotAlignment == 0)
        moveTail(ring, reader, reader.seen);
}

/// Reader: the oldest payload, or null. Moves tail over a skip record. Before the ring is called empty, head
/// is read anew, or a wake-up already taken would be lost.
inline void* nextMessage(const SView& ring, const SEnd& reader)
{
    for (;;) // twice at most: what follows a skip record is at offset 0, where no skip record can be
    {
        if (reader.own == reader.seen)
            reader.seen = others(ring.head);
        if (reader.own == reader.seen)
            return nullptr;
        fullBarrier();
        const std::uint32_t stride = loadStride(ring, reader.own);
        if (!isWithin(ring, reader.own, reader.seen, stride))
        {
            discardAll(ring, reader);
            return nullptr;
        }
        if (!isSkip(stride))
            return ring.data + offsetAt(ring, reader.own) + kHeaderBytes;
        moveTail(ring, reader, reader.own - stride);
    }
}

/// Reader: releases the slot that nextMessage() has given.
inline void advanceToNext(const SView& ring, const SEnd& reader)
{
    fullBarrier();
    const std::uint32_t stride = loadStride(ring, reader.own);
    if (isSkip(stride) || !isPossible(ring, reader.own, stride))
        discardAll(ring, reader);
    else
        moveTail(ring, reader, reader.own + stride);
}

} // namespace event::transport::ring
