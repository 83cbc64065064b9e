// SPDX-License-Identifier: GPL-3.0-or-later
#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <climits>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "event/status_note_event.h"
#include "event/transport/ipc_storage.h"
#include "event/transport/local_storage.h"
#include "event/transport/notification.h"
#include "event/transport/virt_mem.h"
#include "tests/event/shared_names.h"
#include "tests/support/random.h"

using namespace event::transport;
using korvotest::CChild;
using korvotest::CSharedNames;
using testing::ElementsAre;

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr std::uint32_t kManyMessages = 200000;
#else
constexpr std::uint32_t kManyMessages = 2000000;
#endif

constexpr unsigned int kSmall = 4096;

/// The two kinds of ring behind one face: what the writer's end and the reader's end are.
struct CLocalEnds
{
    LocalStorage ring{kSmall};
    LocalStorage& writer = ring;
    LocalStorage& reader = ring;
};
struct CIpcEnds
{
    CSharedNames names;
    IpcStorage reader{kSmall, names.name("ring").c_str(), false};
    IpcStorage writer{kSmall, names.name("ring").c_str(), true};
};

/// A seeded row of messages with their sizes and contents, written by one side and compared by the other.
class CMessages
{
public:
    const unsigned char* next()
    {
        m_size = static_cast<unsigned int>(4 + m_random() % 600);
        std::memcpy(m_bytes, &m_index, sizeof(m_index));
        std::memset(m_bytes + 4, static_cast<int>(m_index++ % 251), m_size - 4);
        return m_bytes;
    }
    unsigned int size() const { return m_size; }

private:
    std::minstd_rand m_random{7};
    std::uint32_t m_index = 0;
    unsigned int m_size = 0;
    unsigned char m_bytes[604] = {};
};

template<typename Ring, typename Wake>
void sendMany(Ring& ring, std::uint32_t count, Wake wake)
{
    CMessages messages;
    for (std::uint32_t i = 0; i < count; ++i)
    {
        const unsigned char* bytes = messages.next();
        void* payload = ring.allocMsgMem(messages.size());
        for (; payload == nullptr; payload = ring.allocMsgMem(messages.size()))
            std::this_thread::yield();
        std::memcpy(payload, bytes, messages.size());
        ring.post(payload);
        wake();
    }
}

/// The number of messages that came before the first wrong one; `sleep` is called while there is none.
template<typename Ring, typename Sleep>
std::uint32_t receiveMany(Ring& ring, std::uint32_t count, Sleep sleep)
{
    CMessages messages;
    for (std::uint32_t i = 0; i < count; ++i)
    {
        const unsigned char* bytes = messages.next();
        const void* payload = ring.nextMessage();
        for (; payload == nullptr; payload = ring.nextMessage())
            sleep();
        if (std::memcmp(payload, bytes, messages.size()) != 0)
            return i;
        ring.advanceToNext();
    }
    return count;
}

template<typename Ends>
void passBetweenThreads(std::uint32_t count)
{
    Ends ends;
    std::thread writer([&] { sendMany(ends.writer, count, [] {}); });
    EXPECT_EQ(receiveMany(ends.reader, count, std::this_thread::yield), count);
    writer.join();
}

/// A shared ring as a foreign process sees it, until that process ends.
std::uint32_t* mapWords(const std::string& name, unsigned int bytes, VirtMem::OpenFlags open)
{
    long handle = VirtMem::INVALID_NATIVE_HANDLE;
    return static_cast<std::uint32_t*>(
        VirtMem::alloc(bytes, name.c_str(), open, VirtMem::kProtReadWrite, true, handle));
}

} // namespace

template<typename Ends>
class MessageRing : public testing::Test
{
protected:
    Ends ends;
};
using BothRings = testing::Types<CLocalEnds, CIpcEnds>;
TYPED_TEST_SUITE(MessageRing, BothRings);

TYPED_TEST(MessageRing, AgreesWithAListOfSlotsAcrossTheWrapOfItsCounters)
{
    auto& writer = this->ends.writer;
    auto& reader = this->ends.reader;
    ASSERT_TRUE(writer.good() && reader.good());
    for (std::uint32_t i = 0; i < (1U << 20) - 8; ++i) // eight times round before 2^32
    {
        writer.post(writer.allocMsgMem(kSmall - 8));
        ASSERT_NE(reader.nextMessage(), nullptr);
        reader.advanceToNext();
    }
    std::deque<std::pair<unsigned int, int>> slots; // stride and contents, which a skip record has not
    unsigned int used = 0;
    unsigned int offset = 0;
    const auto append = [&](unsigned int stride, int contents) {
        slots.emplace_back(stride, contents);
        used += stride;
        offset = (offset + stride) % kSmall;
    };
    std::mt19937 random = korvotest::makeRandom(11);
    for (int step = 0; step < 40000; ++step)
    {
        if (random() % 2 == 0)
        {
            // To the very end, the whole area, and more than that, among what is usual.
            const unsigned int room = kSmall - offset;
            const auto any = static_cast<unsigned int>(random() % 700);
            const unsigned int sizes[] = {any,      any,        any,        0,           260,
                                          room - 8, kSmall - 8, kSmall - 7, 0x80000000U, UINT_MAX};
            const unsigned int bytes = sizes[random() % std::size(sizes)];
            const std::uint64_t stride = 8 + (std::uint64_t{bytes} + 7) / 8 * 8;
            if (used + stride <= kSmall && stride > room)
                append(room, -1);
            void* message = writer.allocMsgMem(bytes);
            ASSERT_EQ(message != nullptr, used + stride <= kSmall);
            ASSERT_EQ(writer.allocMsgMem(bytes), message) << "nothing is taken without a post";
            ASSERT_EQ(writer.usedBytes(), used) << "but what was skipped";
            if (message == nullptr)
                continue;
            ASSERT_EQ(reinterpret_cast<std::uintptr_t>(message) % 8, 0U);
            std::memset(message, step & 0xFF, stride - 8);
            writer.post(message);
            append(static_cast<unsigned int>(stride), step & 0xFF);
        }
        else
        {
            const auto* message = static_cast<const unsigned char*>(reader.nextMessage());
            ASSERT_EQ(reader.nextMessage(), message) << "it stays until it is released";
            if (!slots.empty() && slots.front().second < 0)
            {
                used -= slots.front().first;
                slots.pop_front();
            }
            ASSERT_EQ(message != nullptr, !slots.empty());
            ASSERT_EQ(reader.usedBytes(), used);
            if (message == nullptr)
                continue;
            const auto [stride, contents] = slots.front();
            ASSERT_TRUE(std::all_of(message, message + stride - 8, [c = contents](int b) { return b == c; }));
            reader.advanceToNext();
            used -= stride;
            slots.pop_front();
        }
        ASSERT_EQ(writer.usedBytes(), used);
    }
}

TEST(LocalStorageThreads, MillionsOfMessagesArriveUnchanged)
{
    passBetweenThreads<CLocalEnds>(kManyMessages);
}

TEST(IpcStorageThreads, TwoMappingsOfOneRingAgree)
{
    passBetweenThreads<CIpcEnds>(kManyMessages / 4);
}

TEST(IpcStorageThreads, AnEarlyClientLosesNothing)
{
    constexpr unsigned int kBytes = 65536; // some time goes by while so much is pinned
    const CSharedNames names;
    for (int round = 0; round < 30; ++round)
    {
        const std::string name = names.name(std::to_string(round));
        std::atomic<bool> looking = false;
        std::thread early([&] {
            auto client = std::make_unique<IpcStorage>(kBytes, name.c_str(), true);
            for (looking = true; !client->good();)
                client = std::make_unique<IpcStorage>(kBytes, name.c_str(), true);
            client->post(client->allocMsgMem(4));
        });
        while (!looking)
            std::this_thread::yield();
        const IpcStorage server(kBytes, name.c_str(), false);
        early.join();
        ASSERT_NE(server.nextMessage(), nullptr) << round;
    }
}

TEST(LocalStorage, PurgeForgetsMessages)
{
    LocalStorage ring(kSmall);
    // Each side has looked at the other's counter since that has left 0.
    for (int round = 0; round < 2; ++round)
    {
        for (void* slot = ring.allocMsgMem(1000); slot != nullptr; slot = ring.allocMsgMem(1000))
            ring.post(slot);
        ASSERT_NE(ring.nextMessage(), nullptr);
        ring.advanceToNext();
    }
    ring.purge();
    EXPECT_EQ(ring.nextMessage(), nullptr);
    EXPECT_EQ(ring.usedBytes(), 0U);
    void* all = ring.allocMsgMem(kSmall - 8);
    ASSERT_NE(all, nullptr) << "and where the writer was";
    ring.post(all);
    EXPECT_EQ(ring.allocMsgMem(0), nullptr) << "and how much it saw free";
}

TEST(IpcStorage, LaysItsBytesOutForOtherProcesses)
{
    CIpcEnds ends;
    const std::uint32_t* words = mapWords(ends.names.name("ring"), kSmall + 8, VirtMem::kOpenExisting);
    auto* note = new (ends.writer.allocMsgMem(sizeof(CStatusNoteEvent))) CStatusNoteEvent;
    std::strcpy(note->text, "hello");
    ends.writer.post(note);
    EXPECT_THAT(std::vector(words, words + 3), ElementsAre(272, 0, 272)) << "head, tail, stride";
    EXPECT_EQ(words[4], 0x26FFE5A0U) << "identity";
    EXPECT_STREQ(reinterpret_cast<const char*>(words + 5), "hello");
    ends.reader.advanceToNext();
    EXPECT_EQ(words[1], 272U) << "tail";
}

TEST(IpcStorage, MillionsOfMessagesCrossBetweenProcesses)
{
    constexpr std::uint32_t kCount = kManyMessages / 4;
    CIpcEnds ends;
    IpcWaiter waiter(ends.names.name("wake").c_str());
    CChild client([&] {
        IpcStorage ring(kSmall, ends.names.name("ring").c_str(), true);
        IpcPoster poster(ends.names.name("wake").c_str());
        sendMany(ring, kCount, [&] { poster.post(); });
        return 0;
    });
    EXPECT_EQ(receiveMany(ends.reader, kCount, [&] { EXPECT_TRUE(waiter.wait(20000)); }), kCount);
    EXPECT_EQ(client.wait(), 0);
}

TEST(IpcStorage, AWriterKilledBeforeItsPostLosesNothingElse)
{
    CIpcEnds ends;
    while (ends.writer.usedBytes() < kSmall - 1000)
        ends.writer.post(ends.writer.allocMsgMem(104));
    while (ends.reader.nextMessage() != nullptr)
        ends.reader.advanceToNext();

    CChild client([&] {
        ends.writer.post(ends.writer.allocMsgMem(8));
        std::memset(ends.writer.allocMsgMem(2000), 0xEE,
                    2000); // over the end of the area: leaves a skip record
        return kill(getpid(), SIGKILL);
    });
    EXPECT_EQ(client.wait(), 128 + SIGKILL);
    ASSERT_NE(ends.reader.nextMessage(), nullptr);
    ends.reader.advanceToNext();
    EXPECT_EQ(ends.reader.nextMessage(), nullptr);
    EXPECT_EQ(ends.reader.usedBytes(), 0U);
    sendMany(ends.writer, 5, [] {});
    EXPECT_EQ(receiveMany(ends.reader, 5, [] { FAIL(); }), 5U);
}

TEST(IpcStorage, AnImpossibleSlotEndsNeitherInALoopNorOutsideTheRing)
{
    struct SCase
    {
        std::uint32_t head, tail;
        std::int32_t stride;
    };
    const SCase cases[] = {
        {272, 0, 0},    {272, 0, 4},       {272, 0, 20},       {272, 0, 280},     {272, 0, 1 << 30},
        {272, 0, -8},   {272, 0, INT_MIN}, {4096, 0, -4096},   {4096, 4080, -8},  {4120, 4080, 24},
        {8192, 0, 272}, {0, 8, 16},        {0xFFFFFFF8, 0, 8}, {4096, 4080, -16}, {2 * 4096, 4080, -16},
    };
    CIpcEnds ends;
    std::uint32_t* words = mapWords(ends.names.name("ring"), kSmall + 8, VirtMem::kOpenExisting);
    for (const SCase& c : cases)
    {
        SCOPED_TRACE(testing::Message() << c.head << ' ' << c.tail << ' ' << c.stride);
        words[0] = c.head;
        words[1] = c.tail;
        words[2] = 0; // what a skip record leads to
        words[2 + c.tail % kSmall / 4] = static_cast<std::uint32_t>(c.stride);
        EXPECT_EQ(ends.reader.nextMessage(), nullptr);
        EXPECT_EQ(ends.reader.usedBytes(), 0U);
        ends.writer.post(ends.writer.allocMsgMem(100));
        EXPECT_NE(ends.reader.nextMessage(), nullptr) << "and the ring goes on";
        words[2 + words[1] % kSmall / 4] = 4;
        ends.reader.advanceToNext();
        EXPECT_EQ(ends.reader.usedBytes(), 0U) << "nor does one that turned so since it was looked at";
    }
    words[0] = 4;
    EXPECT_FALSE(ends.reader.good());
    EXPECT_EQ(ends.reader.nextMessage(), nullptr);
    words[0] = 8;
    words[1] = 12;
    EXPECT_FALSE(ends.reader.good());
}

TEST(IpcStorage, ANewServerTakesOverWhatAnOlderOneLeft)
{
    const CSharedNames names;
    const std::string ring = names.name("ring");
    EXPECT_FALSE(IpcStorage(kSmall, ring.c_str(), true).good()) << "no server yet";
    for (const unsigned int bytesLeft : {4U, kSmall, kSmall + 8, 65544U})
    {
        SCOPED_TRACE(bytesLeft);
        std::uint32_t* head = mapWords(ring, bytesLeft, VirtMem::kOpenCreate);
        ASSERT_NE(head, nullptr);
        *head = 48;
        EXPECT_EQ(IpcStorage(kSmall, ring.c_str(), true).good(), bytesLeft >= kSmall + 8)
            << "too short to be written to";
        auto server = std::make_unique<IpcStorage>(kSmall, ring.c_str(), false);
        ASSERT_TRUE(server->good());
        EXPECT_EQ(server->usedBytes(), 0U);
        EXPECT_EQ(*head, 0U) << "the object itself, so that clients stay attached";
        IpcStorage client(kSmall, ring.c_str(), true);
        ASSERT_TRUE(client.good());
        server.reset();
        EXPECT_NE(client.allocMsgMem(8), nullptr) << "the client's mapping outlives the name";
        EXPECT_FALSE(IpcStorage(kSmall, ring.c_str(), true).good());
        client.cleanup();
        client.cleanup();
        EXPECT_FALSE(client.good());
    }
}

TEST(IpcStorage, RefusesWhatCannotBeARing)
{
    const CSharedNames names;
    const std::string tooLong = std::string("/").append(300, 'x');
    EXPECT_FALSE(IpcStorage(kSmall, tooLong.c_str(), false).good());
    EXPECT_FALSE(IpcStorage(kSmall, names.name("no/folder").c_str(), false).good());
    EXPECT_FALSE(IpcStorage(2048, names.name("small").c_str(), false).good());
    EXPECT_FALSE(IpcStorage(kSmall, nullptr, false).good());
    const std::string cut = names.name(std::string(100, 'x'));
    EXPECT_TRUE(IpcStorage(kSmall, cut.c_str(), false).good()) << "a name of middle length is cut";
    EXPECT_FALSE(IpcStorage(kSmall, cut.c_str(), true).good()) << "and removed under the same cut";

    const IpcStorage taken(kSmall, names.name("taken").c_str(), false);
    EXPECT_EQ(mapWords(names.name("taken"), 4096, VirtMem::kOpenCreateExclusive), nullptr);
}
