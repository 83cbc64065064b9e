// SPDX-License-Identifier: GPL-3.0-or-later
#include <gmock/gmock.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <thread>

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

/// Sends one message of `bytes` and takes it out again.
template<typename Ends>
bool passOn(Ends& ends, unsigned int bytes)
{
    void* written = ends.writer.allocMsgMem(bytes);
    if (written == nullptr)
        return false;
    ends.writer.post(written);
    if (ends.reader.nextMessage() == nullptr)
        return false;
    ends.reader.advanceToNext();
    return true;
}

/// Message number `index` of a seeded row: its size and its contents.
class CMessages
{
public:
    void next(std::uint32_t index)
    {
        m_size = static_cast<unsigned int>(4 + m_random() % 600);
        std::memcpy(m_bytes, &index, sizeof(index));
        std::memset(m_bytes + 4, static_cast<int>(index % 251), m_size - 4);
    }
    unsigned int size() const { return m_size; }
    void writeTo(void* payload) const { std::memcpy(payload, m_bytes, m_size); }
    bool equals(const void* payload) const { return std::memcmp(payload, m_bytes, m_size) == 0; }

private:
    std::minstd_rand m_random{7};
    unsigned int m_size = 0;
    unsigned char m_bytes[604] = {};
};

template<typename Ring>
void sendMany(
    Ring& ring, std::uint32_t count, const std::function<void()>& wake = [] {})
{
    CMessages messages;
    for (std::uint32_t i = 0; i < count; ++i)
    {
        messages.next(i);
        void* payload = ring.allocMsgMem(messages.size());
        for (; payload == nullptr; payload = ring.allocMsgMem(messages.size()))
            std::this_thread::yield();
        messages.writeTo(payload);
        ring.post(payload);
        wake();
    }
}

/// The number of messages that came before the first wrong one; `sleep` is called while there is none.
template<typename Ring>
std::uint32_t receiveMany(Ring& ring, std::uint32_t count, const std::function<void()>& sleep)
{
    CMessages messages;
    for (std::uint32_t i = 0; i < count; ++i)
    {
        messages.next(i);
        const void* payload = ring.nextMessage();
        for (; payload == nullptr; payload = ring.nextMessage())
            sleep();
        if (!messages.equals(payload))
            return i;
        ring.advanceToNext();
    }
    return count;
}

/// The words of a shared ring as a foreign process sees them.
class CRawRing
{
public:
    explicit CRawRing(const std::string& name)
        : m_memory(static_cast<unsigned char*>(VirtMem::alloc(
              kSmall + 8, name.c_str(), VirtMem::kOpenExisting, VirtMem::kProtReadWrite, true, m_handle)))
    {
    }
    ~CRawRing()
    {
        VirtMem::unmap(m_memory, kSmall + 8);
        VirtMem::close(m_handle);
    }
    std::uint32_t get(std::size_t offset) const
    {
        std::uint32_t word;
        std::memcpy(&word, m_memory + offset, sizeof(word));
        return word;
    }
    void set(std::size_t offset, std::uint32_t word) { std::memcpy(m_memory + offset, &word, sizeof(word)); }
    const char* text(std::size_t offset) const { return reinterpret_cast<const char*>(m_memory + offset); }

private:
    long m_handle = VirtMem::INVALID_NATIVE_HANDLE;
    unsigned char* m_memory;
};

} // namespace

template<typename Ends>
class MessageRing : public testing::Test
{
protected:
    Ends ends;
};
using BothRings = testing::Types<CLocalEnds, CIpcEnds>;
TYPED_TEST_SUITE(MessageRing, BothRings);

TYPED_TEST(MessageRing, SkipsTheEndThatIsTooShort)
{
    auto& writer = this->ends.writer;
    auto& reader = this->ends.reader;
    ASSERT_TRUE(writer.good() && reader.good());
    EXPECT_EQ(reader.nextMessage(), nullptr);
    void* const atStart = writer.allocMsgMem(260);
    EXPECT_EQ(writer.allocMsgMem(260), atStart) << "nothing is taken without a post";
    ASSERT_TRUE(passOn(this->ends, kSmall - 16 - 8)); // 16 bytes to the end
    void* message = writer.allocMsgMem(260);
    EXPECT_EQ(message, atStart);
    EXPECT_EQ(writer.usedBytes(), 16U);
    std::memset(message, 0x5A, 260);
    writer.post(message);
    EXPECT_EQ(writer.usedBytes(), 16U + 272U);
    const auto* received = static_cast<const unsigned char*>(reader.nextMessage());
    ASSERT_NE(received, nullptr);
    EXPECT_TRUE(std::all_of(received, received + 260, [](unsigned char byte) { return byte == 0x5A; }));
    EXPECT_EQ(reader.usedBytes(), 272U);
    EXPECT_EQ(reader.nextMessage(), received) << "it stays until it is released";
    reader.advanceToNext();
    EXPECT_EQ(reader.nextMessage(), nullptr);
    EXPECT_EQ(reader.usedBytes(), 0U);
}

TYPED_TEST(MessageRing, TakesWhatFitsAndNothingElse)
{
    auto& writer = this->ends.writer;
    ASSERT_TRUE(passOn(this->ends, 0));
    ASSERT_TRUE(passOn(this->ends, kSmall - 16)); // to the very end, without a skip
    void* whole = writer.allocMsgMem(kSmall - 8);
    ASSERT_NE(whole, nullptr);
    writer.post(whole);
    EXPECT_EQ(writer.usedBytes(), kSmall);
    EXPECT_EQ(writer.allocMsgMem(0), nullptr);
    ASSERT_NE(this->ends.reader.nextMessage(), nullptr);
    this->ends.reader.advanceToNext();

    ASSERT_TRUE(passOn(this->ends, 100)); // 112 bytes off the start
    EXPECT_EQ(writer.allocMsgMem(kSmall - 8), nullptr) << "does not fit in one piece";
    EXPECT_EQ(writer.usedBytes(), kSmall - 112) << "the skip record stands";
    EXPECT_EQ(this->ends.reader.nextMessage(), nullptr);
    EXPECT_TRUE(passOn(this->ends, kSmall - 8)) << "now that the skip record is consumed";

    for (const unsigned int tooLarge : {kSmall - 7, kSmall, 0x7FFFFFF0U, 0x80000000U, 0xFFFFFFF1U, UINT_MAX})
        EXPECT_EQ(writer.allocMsgMem(tooLarge), nullptr) << tooLarge;
    EXPECT_EQ(writer.usedBytes(), 0U);
}

TYPED_TEST(MessageRing, AgreesWithAQueueAcrossTheWrapOfItsCounters)
{
    for (std::uint32_t i = 0; i < (1U << 20) - 8; ++i) // eight times round before 2^32
        ASSERT_TRUE(passOn(this->ends, kSmall - 8));
    std::mt19937 random = korvotest::makeRandom(11);
    std::deque<std::pair<unsigned int, unsigned char>> expected;
    for (int step = 0; step < 20000; ++step)
    {
        const unsigned int bytes = static_cast<unsigned int>(1 + random() % 700);
        void* message = random() % 2 == 0 ? nullptr : this->ends.writer.allocMsgMem(bytes);
        if (message != nullptr)
        {
            ASSERT_EQ(reinterpret_cast<std::uintptr_t>(message) % 8, 0U);
            expected.emplace_back(bytes, static_cast<unsigned char>(step));
            std::memset(message, static_cast<unsigned char>(step), bytes);
            this->ends.writer.post(message);
        }
        else if (!expected.empty())
        {
            const auto [size, value] = expected.front();
            const auto* next = static_cast<const unsigned char*>(this->ends.reader.nextMessage());
            ASSERT_NE(next, nullptr);
            ASSERT_TRUE(
                std::all_of(next, next + size, [v = value](unsigned char byte) { return byte == v; }));
            this->ends.reader.advanceToNext();
            expected.pop_front();
        }
        ASSERT_LE(this->ends.writer.usedBytes(), kSmall);
    }
}

TEST(LocalStorageThreads, MillionsOfMessagesArriveUnchanged)
{
    LocalStorage ring(kSmall);
    std::thread writer([&] { sendMany(ring, kManyMessages); });
    EXPECT_EQ(receiveMany(ring, kManyMessages, [] { std::this_thread::yield(); }), kManyMessages);
    writer.join();
}

TEST(IpcStorageThreads, TwoMappingsOfOneRingAgree)
{
    CIpcEnds ends;
    std::thread writer([&] { sendMany(ends.writer, kManyMessages / 4); });
    EXPECT_EQ(receiveMany(ends.reader, kManyMessages / 4, [] { std::this_thread::yield(); }),
              kManyMessages / 4);
    writer.join();
}

TEST(LocalStorage, PurgeForgetsMessages)
{
    LocalStorage ring(kSmall);
    for (int i = 0; i < 4; ++i) // until both sides have looked at the other's counter
        ring.post(ring.allocMsgMem(1000));
    EXPECT_EQ(ring.allocMsgMem(1000), nullptr);
    ASSERT_NE(ring.nextMessage(), nullptr);
    ring.advanceToNext();
    ring.post(ring.allocMsgMem(1000));
    ring.purge();
    EXPECT_EQ(ring.nextMessage(), nullptr);
    EXPECT_EQ(ring.usedBytes(), 0U);
    ring.post(ring.allocMsgMem(kSmall - 8));
    EXPECT_EQ(ring.allocMsgMem(0), nullptr) << "and how much was free before";
}

TEST(IpcStorage, LaysItsBytesOutForOtherProcesses)
{
    CIpcEnds ends;
    const CRawRing raw(ends.names.name("ring"));
    auto* note = new (ends.writer.allocMsgMem(sizeof(CStatusNoteEvent))) CStatusNoteEvent;
    std::strcpy(note->text, "hello");
    ends.writer.post(note);
    EXPECT_EQ(raw.get(0), 272U) << "head";
    EXPECT_EQ(raw.get(4), 0U) << "tail";
    EXPECT_EQ(raw.get(8), 272U) << "stride";
    EXPECT_EQ(raw.get(16), 0x26FFE5A0U) << "identity";
    EXPECT_STREQ(raw.text(20), "hello");
    ends.reader.advanceToNext();
    EXPECT_EQ(raw.get(4), 272U) << "tail";
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
    EXPECT_EQ(client.wait(std::chrono::seconds(20)), 0);
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
    EXPECT_EQ(client.wait(std::chrono::seconds(20)), 128 + SIGKILL);
    ASSERT_NE(ends.reader.nextMessage(), nullptr);
    ends.reader.advanceToNext();
    EXPECT_EQ(ends.reader.nextMessage(), nullptr);
    EXPECT_EQ(ends.reader.usedBytes(), 0U);
    sendMany(ends.writer, 5);
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
    CRawRing raw(ends.names.name("ring"));
    for (const SCase& c : cases)
    {
        SCOPED_TRACE(testing::Message() << c.head << ' ' << c.tail << ' ' << c.stride);
        raw.set(0, c.head);
        raw.set(4, c.tail);
        raw.set(8, 0); // what a skip record leads to
        raw.set(8 + c.tail % kSmall, static_cast<std::uint32_t>(c.stride));
        EXPECT_EQ(ends.reader.nextMessage(), nullptr);
        EXPECT_EQ(ends.reader.usedBytes(), 0U);
        EXPECT_TRUE(passOn(ends, 100)) << "and the ring goes on";
    }
    raw.set(0, 4);
    EXPECT_FALSE(ends.reader.good());
    EXPECT_EQ(ends.reader.nextMessage(), nullptr);
    raw.set(0, 8);
    raw.set(4, 12);
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
        long left = VirtMem::INVALID_NATIVE_HANDLE;
        auto* head = static_cast<std::uint32_t*>(VirtMem::alloc(bytesLeft, ring.c_str(), VirtMem::kOpenCreate,
                                                                VirtMem::kProtReadWrite, true, left));
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
        VirtMem::unmap(head, bytesLeft);
        VirtMem::close(left);
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

    long handle = VirtMem::INVALID_NATIVE_HANDLE;
    const IpcStorage taken(kSmall, names.name("taken").c_str(), false);
    EXPECT_EQ(VirtMem::alloc(4096, names.name("taken").c_str(), VirtMem::kOpenCreateExclusive,
                             VirtMem::kProtReadWrite, true, handle),
              nullptr)
        << "exclusive means that";
    EXPECT_EQ(handle, VirtMem::INVALID_NATIVE_HANDLE);
}
