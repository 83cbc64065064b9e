// SPDX-License-Identifier: GPL-3.0-or-later
#include "event/transport/local_storage.h"

#include "event/transport/message_ring.h"

namespace event::transport {

namespace {

// Room behind the data for the identity that a reader looks for in a message without any payload.
constexpr std::size_t kSpareBytes = 8;

} // namespace

LocalStorage::LocalStorage(unsigned int bytes)
    : size(bytes), mask(bytes - 1), data(new unsigned char[bytes + kSpareBytes]())
{
}

LocalStorage::~LocalStorage()
{
    delete[] data;
}

bool LocalStorage::checkInvariant() const
{
    return data != nullptr;
}

unsigned int LocalStorage::usedBytes() const
{
    return ring::others(head) -
           ring::others(tail); // acquire: either side may ask, and goes on to use what it finds
}

void* LocalStorage::allocMsgMem(unsigned int payloadBytes)
{
    void* message = ring::allocMsgMem({head, tail, data, size, mask}, {writerHead, tailSeen}, payloadBytes);
    if (message != nullptr)
        given = ring::strideFor(payloadBytes);
    return message;
}

void LocalStorage::post(void* message)
{
    if (message != nullptr)
        ring::post({head, tail, data, size, mask}, {writerHead, tailSeen}, given);
}

void* LocalStorage::oldest() const
{
    return ring::nextMessage({head, tail, data, size, mask}, {readerTail, headSeen});
}

void LocalStorage::advanceToNext()
{
    ring::advanceToNext({head, tail, data, size, mask}, {readerTail, headSeen});
}

void LocalStorage::purge()
{
    ring::publish(head, 0); // as elsewhere, though nobody is there to pair with
    ring::publish(tail, 0);
    writerHead = tailSeen = readerTail = headSeen = 0;
}

} // namespace event::transport
