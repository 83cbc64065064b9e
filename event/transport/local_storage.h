// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "korvo_export.h"

namespace event::transport {

/// A ring of messages between two threads: one writes, one reads, and neither waits, locks or allocates. Wake
/// the reader with an Event, or let it poll.
class KORVO_EXPORT LocalStorage
{
public:
    /** @param bytes of the data area; a power of two below 2^31, at least 8. 4096 is usual. */
    explicit LocalStorage(unsigned int bytes);
    ~LocalStorage();
    LocalStorage(const LocalStorage&) = delete;
    LocalStorage& operator=(const LocalStorage&) = delete;

    /** Whether the ring can be used. Threads: any. */
    bool good() const { return checkInvariant(); }
    bool checkInvariant() const;
    /** Bytes of the data area. Threads: any. */
    unsigned int sizeBytes() const { return size; }
    /** Bytes taken, with headers, padding and what was skipped at the end of the area. Threads: writer,
     * reader. */
    unsigned int usedBytes() const;

    /** A slot for payloadBytes, aligned to 8 and not cleared; null if the ring is too full. Not seen by the
     * reader before post(); without a post() the next call gives the same slot. Threads: the writer. Real
     * time: yes. */
    void* allocMsgMem(unsigned int payloadBytes);
    /** Hands the slot that allocMsgMem() gave to the reader. Null is ignored.
     *  Threads: the writer. Real time: yes. */
    void post(void* message);

    /** The oldest message, where it lies; null if there is none. The same again until advanceToNext().
     *  Threads: the reader. Real time: yes. */
    void* nextMessage() const { return isEmpty() ? nullptr : oldest(); }
    /** Releases the message that nextMessage() gave: the writer may overwrite it from now on.
     *  Threads: the reader. Real time: yes. */
    void advanceToNext();

    /** Empties the ring. Threads: not while anyone writes or reads. */
    void purge();

private:
    /// Looks at head only when all that it has seen is taken. Pairs with the release in post(). Inline, since
    /// this is all that a polling reader does: behind a call, a small message's round trip takes a quarter
    /// longer.
    bool isEmpty() const
    {
        if (readerTail == headSeen)
            headSeen = std::atomic_ref(head).load(std::memory_order_acquire);
        return readerTail == headSeen;
    }
    void* oldest() const;

    // Two lines, since processors fetch them in pairs. Each side works on a pair of its own; the two counters
    // proper, which the other side takes away whenever it looks, are only stored to by their owner.
    static constexpr std::size_t kLinePair = 128;

    std::uint32_t size;
    std::uint32_t mask;
    unsigned char* data;
    alignas(kLinePair) mutable std::uint32_t head = 0;
    alignas(kLinePair) mutable std::uint32_t tail = 0; // nextMessage() moves it over skip records
    alignas(kLinePair) std::uint32_t writerHead = 0;   // the writer's copies
    std::uint32_t tailSeen = 0;
    std::uint32_t given =
        0; // the stride of the slot that awaits its post(), which would wait to read it back
    alignas(kLinePair) mutable std::uint32_t readerTail = 0; // the reader's copies
    mutable std::uint32_t headSeen = 0;
};

} // namespace event::transport
