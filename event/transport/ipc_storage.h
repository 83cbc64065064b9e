// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>

#include "korvo_export.h"

namespace event::transport {

/// A ring of messages from one process to another, in a named shared-memory object. The server creates and
/// empties the ring and reads from it; the client attaches to it at any time and writes. The object outlives
/// a server that crashes; the next one takes it over. docs/event-bus.md draws the layout.
class KORVO_EXPORT IpcStorage
{
public:
    /** Creates the ring (a server) or attaches to it (a client); good() tells whether that worked.
     *  @param bytes of the data area; a power of two below 2^31, at least 4096. 65536 is usual.
     *  @param ringName without a slash; cut to 62 characters
     *  @param client  true attaches to what is there, false creates the ring or takes over and empties it */
    IpcStorage(unsigned int bytes, const char* ringName, bool client);
    /** As cleanup(). */
    ~IpcStorage();
    IpcStorage(const IpcStorage&) = delete;
    IpcStorage& operator=(const IpcStorage&) = delete;

    /** Whether the ring is attached and its counters are sane. Threads: any. */
    bool good() const { return checkInvariant(); }
    bool checkInvariant() const;
    /** Bytes of the data area. Threads: any. */
    unsigned int sizeBytes() const { return size; }
    /** Bytes taken, with headers, padding and what was skipped at the end of the area. Only of a good() ring.
     *  Threads: writer, reader. */
    unsigned int usedBytes() const;

    /** A slot for payloadBytes, aligned to 8 and not cleared; null if the ring is too full. Not seen by the
     * reader before post(); without a post() the next call gives the same slot. Only of a good() ring.
     *  Threads: the one writer of the ring, over all processes. Real time: yes. */
    void* allocMsgMem(unsigned int payloadBytes);
    /** Hands the slot that allocMsgMem() gave to the reader. Null is ignored. IpcPoster::post() then wakes
     * it. Threads: the writer. Real time: yes. */
    void post(void* message);

    /** The oldest message, where it lies; null if there is none. The same again until advanceToNext(). Only
     * of a good() ring. Threads: the one reader of the ring, over all processes. Real time: yes. */
    void* nextMessage() const;
    /** Releases the message that nextMessage() gave: the writer may overwrite it from now on.
     *  Threads: the reader. Real time: yes. */
    void advanceToNext();

    /** Detaches from the ring; its creator also removes the name. good() is false from then on.
     *  Threads: not while anyone uses this object. */
    void cleanup();

private:
    char name[64];
    bool owner;
    std::uint32_t size;
    std::uint32_t mask;
    long handle;
    unsigned char* base;
    unsigned char* data;
    std::uint32_t* head;
    std::uint32_t* tail;
};

} // namespace event::transport
