// SPDX-License-Identifier: GPL-3.0-or-later
#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "event/dispatcher.h"
#include "event/event_handler.h"
#include "event/status_note_event.h"
#include "event/transport/ipc_storage.h"
#include "event/transport/local_storage.h"
#include "event/transport/notification.h"
#include "event/transport/thread_event.h"
#include "tests/event/shared_names.h"

using namespace event;
using namespace event::dispatch;
using testing::ElementsAre;
using transport::ETransport;

namespace {

constexpr ETransport kHere = transport::kTransport3;
constexpr ETransport kElsewhere = transport::kTransport4;

class CPing : public CEventIdBase<CPing>
{
};
class CCount : public CEventIdBase<CCount>
{
public:
    int value = 0;
};
/// Known to senders only, as a type that another process has.
class CForeign : public CEventIdBase<CForeign>
{
};

template<ETransport registerOn = kHere>
class CPingHandler : public CEventHandler<CPing, registerOn>
{
public:
    explicit CPingHandler(std::function<void()> work) : m_work(std::move(work)) {}
    void onEvent(CPing const&) override { m_work(); }

private:
    std::function<void()> m_work;
};

/// Takes two events, each through a base of its own.
class CTwoHandler : public CEventHandler<CPing, kHere>, public CEventHandler<CCount, kHere>
{
public:
    void onEvent(CPing const&) override { ++pings; }
    void onEvent(CCount const& event) override { sum += event.value; }
    int pings = 0;
    int sum = 0;
};

class CEarlyHandler : public CEventHandler<CCount, transport::kTransport5>
{
public:
    void onEvent(CCount const& event) override { sum += event.value; }
    int sum = 0;
};
/// Made before the initialisers of this file's event types have run.
CEarlyHandler s_early;

/// A type_info of any name. The registry keeps the pointer.
struct CNamedType : std::type_info
{
    explicit CNamedType(const char* text) : std::type_info(text) {}
};

template<typename T>
T& put(transport::IpcStorage& ring)
{
    T* event = new (ring.allocMsgMem(sizeof(T))) T;
    ring.post(event);
    return *event;
}

} // namespace

TEST(Event, IdentityComesFromTheEncodedName)
{
    EXPECT_EQ(CStatusNoteEvent::s_kId, 0x26FFE5A0U);
    EXPECT_EQ(CStatusNoteEvent().id, 0x26FFE5A0U);
    EXPECT_STREQ(CStatusNoteEvent().GetTypeName(), "16CStatusNoteEvent");
    EXPECT_STREQ(GetTypeNameForId(0x12345678), "N/A");

    EXPECT_EQ(CEventBase::hash(CNamedType("")), 0U);
    EXPECT_EQ(CEventBase::hash(CNamedType("A")), 0x41U);
    EXPECT_EQ(CEventBase::hash(CNamedType("\xFF")), 0xFFFFFFFFU) << "sign-extended";
    EXPECT_EQ(CEventBase::hash(CNamedType("\xFF"
                                          "a")),
              (0U - 0x811C9DC5U) ^ 0x61U)
        << "multiplied first";

    const std::size_t names = CTypeHolder::instance().size();
    static const char kSecond[] = "A";
    EXPECT_EQ(CEventBase::hash(CNamedType(kSecond)), 0x41U);
    EXPECT_EQ(CTypeHolder::instance().size(), names);
    EXPECT_NE(GetTypeNameForId(0x41), kSecond) << "the first name stays";
}

TEST(EventHandler, WorksWhenMadeBeforeTheIdentityIsSet)
{
    CCount count;
    count.value = 5;
    EXPECT_EQ(DispatchEvent(count, transport::kTransport5), kDispatched);
    EXPECT_EQ(s_early.sum, 5);
    EXPECT_EQ(DispatchEvent(count, kElsewhere), kNoHandler);
    EXPECT_EQ(DispatchEvent(CForeign(), transport::kTransport5), kNoHandler);
}

TEST(Dispatcher, CallsOldestFirstAndForgetsTheRemoved)
{
    std::vector<char> calls;
    CPingHandler a([&] { calls.push_back('a'); });
    CPingHandler b([&] { calls.push_back('b'); });
    RegisterHandler(kHere, a);
    DispatchEvent(CPing(), kHere);
    EXPECT_THAT(calls, ElementsAre('a', 'b', 'a'));
    calls.clear();
    UnregisterHandler(kHere, a);
    UnregisterHandler(kElsewhere, b); // was never there
    DispatchEvent(CPing(), kHere);
    EXPECT_THAT(calls, ElementsAre('b', 'a'));

    CPingHandler<transport::kTransportNone> quiet([&] { calls.push_back('q'); });
    EXPECT_EQ(DispatchEvent(CPing(), transport::kTransportNone), kNoHandler);
    RegisterHandler(kElsewhere, quiet);
    EXPECT_EQ(DispatchEvent(CPing(), kElsewhere), kDispatched);
    UnregisterHandler(kElsewhere, quiet);
    EXPECT_EQ(DispatchEvent(CPing(), kElsewhere), kNoHandler);
    EXPECT_THAT(calls, ElementsAre('b', 'a', 'q'));
}

TEST(Dispatcher, NestedDeliveryRunsAtOnce)
{
    std::vector<int> order;
    bool outer = true;
    CPingHandler first([&] {
        order.push_back(1);
        if (std::exchange(outer, false))
            DispatchEvent(CPing(), kHere);
    });
    CPingHandler second([&] { order.push_back(2); });
    DispatchEvent(CPing(), kHere);
    EXPECT_THAT(order, ElementsAre(1, 1, 2, 2));
}

TEST(Dispatcher, AHandlerThatEndsHandlersDoesNoHarm)
{
    std::unique_ptr<CPingHandler<>> second;
    int calls = 0;
    CPingHandler<> first([&] {
        ++calls;
        second.reset();
        UnregisterHandler(kHere, first);
    });
    second = std::make_unique<CPingHandler<>>([] { FAIL() << "gone"; });
    EXPECT_EQ(DispatchEvent(CPing(), kHere), kDispatched);
    EXPECT_EQ(DispatchEvent(CPing(), kHere), kNoHandler) << "no entry is left behind";
    EXPECT_EQ(calls, 1);
}

TEST(DispatcherThreads, AHandlerIsGoneWhenItsRemovalReturns)
{
    for (int round = 0; round < 50; ++round)
    {
        std::atomic<int> calls = 0;
        std::atomic<bool> stop = false;
        auto handler = std::make_unique<CPingHandler<>>([&] { ++calls; });
        std::thread deliverer([&] {
            while (!stop)
                DispatchEvent(CPing(), kHere);
        });
        EXPECT_TRUE(korvotest::eventually([&] { return calls > 0; }));
        UnregisterHandler(kHere, *handler);
        const int seen = calls;
        for (int i = 0; i < 20; ++i)
            DispatchEvent(CCount(), kHere);
        EXPECT_EQ(calls, seen);
        stop = true;
        deliverer.join();
    }
}

TEST(DispatcherThreads, AConsumerDrainsItsRingAndSleeps)
{
    constexpr int kNotes = 20000;
    transport::LocalStorage ring(4096);
    transport::Event wake;
    std::thread producer([&] {
        for (int i = 1; i <= kNotes; ++i)
        {
            void* slot = ring.allocMsgMem(sizeof(CCount));
            for (; slot == nullptr; slot = ring.allocMsgMem(sizeof(CCount)))
                std::this_thread::yield();
            auto* event = new (slot) CCount;
            event->value = i % 10;
            ring.post(event);
            wake.notify();
        }
    });
    CTwoHandler handler;
    for (int taken = 0; taken < kNotes;)
    {
        for (; const void* message = ring.nextMessage(); ++taken)
        {
            DispatchEvent(*static_cast<const CEventBase*>(message), kHere);
            ring.advanceToNext();
        }
        wake.wait(100);
    }
    producer.join();
    EXPECT_EQ(handler.sum, kNotes / 10 * 45);
}

class ServerPump : public testing::Test
{
protected:
    korvotest::CSharedNames names;
    transport::IpcStorage ring{4096, names.name("ring").c_str(), false};
    transport::IpcWaiter waiter{names.name("wake").c_str()};
    transport::IpcPoster poster{names.name("wake").c_str()};
    transport::TransportServer server{&ring, kHere};
    transport::TransportServerSynced synced{{&ring, kHere}, &waiter};
};

TEST_F(ServerPump, TellsWhatBecameOfAMessage)
{
    CTwoHandler handler;
    unsigned int unhandled = 77;
    EXPECT_EQ(DispatchEventForServer(server, &unhandled), kNoMessage);
    put<CCount>(ring).value = 3;
    put<CForeign>(ring);
    put<CForeign>(ring);
    put<CPing>(ring);
    put<CCount>(ring).value = 4;
    EXPECT_EQ(DispatchEventForServer(server, &unhandled), kDispatched);
    EXPECT_EQ(unhandled, 77U);
    EXPECT_EQ(DispatchEventForServer(server, &unhandled), kNoHandler);
    EXPECT_EQ(unhandled, CForeign::s_kId);
    EXPECT_EQ(DispatchEventForServer(server, nullptr), kNoHandler);
    EXPECT_EQ(DispatchEventForServer(server, nullptr), kDispatched);
    EXPECT_EQ(handler.pings, 1);
    EXPECT_EQ(DispatchEventForServer(synced, 0, nullptr), kDispatched);
    EXPECT_EQ(handler.sum, 7);
    EXPECT_EQ(ring.usedBytes(), 0U);
}

TEST_F(ServerPump, DeliversAgainAfterAThrow)
{
    std::string calls;
    bool broken = true;
    CPingHandler first([&] { calls += 'a'; });
    CPingHandler throwing([&] {
        calls += 'b';
        if (broken)
            throw std::runtime_error("b");
    });
    CPingHandler last([&] { calls += 'c'; });
    put<CPing>(ring);
    EXPECT_THROW(DispatchEventForServer(server, nullptr), std::runtime_error);
    EXPECT_EQ(calls, "ab");
    broken = false;
    // From another thread: the lock must have been released.
    std::thread([&] { EXPECT_EQ(DispatchEventForServer(server, nullptr), kDispatched); }).join();
    EXPECT_EQ(calls, "ababc");
    EXPECT_EQ(DispatchEventForServer(server, nullptr), kNoMessage);
}

TEST_F(ServerPump, SleepsAtMostOnce)
{
    const auto pump = [&](unsigned int timeoutMs, EDispatchResult expected) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(DispatchEventForServer(synced, timeoutMs, nullptr), expected);
        return std::chrono::steady_clock::now() - start;
    };
    EXPECT_GE(pump(60, kNoMessage), std::chrono::milliseconds(60));
    EXPECT_TRUE(poster.post()); // a wake-up whose message was found without it
    EXPECT_LT(pump(20000, kNoMessage), std::chrono::seconds(10));

    const CTwoHandler handler;
    korvotest::CChild client([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        put<CPing>(ring);
        return poster.post() ? 0 : 1;
    });
    EXPECT_LT(pump(20000, kDispatched), std::chrono::seconds(10));
    EXPECT_EQ(client.wait(), 0);
}
