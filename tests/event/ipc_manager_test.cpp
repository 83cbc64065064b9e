// SPDX-License-Identifier: GPL-3.0-or-later
#include <gmock/gmock.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <thread>

#include "event/dispatcher.h"
#include "event/event_handler.h"
#include "event/status_note_event.h"
#include "event/transport/ipc_manager.h"
#include "tests/event/shared_names.h"

using namespace event;
using namespace event::transport;
using korvotest::CChild;
using korvotest::eventually;

namespace {

constexpr ETransport kBus = kTransport8;

class CNoteCounter : public CEventHandler<CStatusNoteEvent, kBus>
{
public:
    void onEvent(CStatusNoteEvent const& note) override
    {
        ++notes;
        stopped = std::strcmp(note.text, "stop") == 0;
    }
    int notes = 0;
    bool stopped = false;
};

/// A server as it is meant to be; its time-outs are so long that only the semaphore can wake it. Gives the
/// number of notes up to "stop".
int serve()
{
    TransportServerSynced server;
    server.waiter = GetIpcWaiter(kBus);
    server.storage = GetIpcStorage(kBus, false);
    server.transport = kBus;
    CNoteCounter counter;
    while (!counter.stopped)
        dispatch::DispatchEventForServer(server, 600000, nullptr);
    return counter.notes;
}

bool send(const char* text)
{
    IpcStorage* ring = GetIpcStorage(kBus, true);
    void* slot = ring->allocMsgMem(sizeof(CStatusNoteEvent));
    if (slot == nullptr)
        return false;
    auto* note = new (slot) CStatusNoteEvent;
    std::snprintf(note->text, sizeof(note->text), "%s", text);
    ring->post(note);
    return GetIpcPoster(kBus)->post();
}

} // namespace

/// A transport for each test, since a channel that is made keeps its names.
class IpcManagerTest : public testing::Test
{
protected:
    IpcManagerTest() { SetIpcSharePrefix(names.prefix().c_str()); }
    korvotest::CSharedNames names;
};

TEST_F(IpcManagerTest, AClientGetsItsChannelOnceTheServerIsUp)
{
    constexpr ETransport kOwn = kTransport1;
    EXPECT_EQ(GetIpcStorage(kOwn, true), nullptr);
    EXPECT_EQ(GetIpcPoster(kOwn), nullptr);

    IpcWaiter* waiter = GetIpcWaiter(kOwn);
    IpcStorage* server = GetIpcStorage(kOwn, false);
    ASSERT_TRUE(server->good());
    EXPECT_EQ(server->sizeBytes(), 65536U);
    EXPECT_EQ(GetIpcWaiter(kOwn), waiter);
    EXPECT_EQ(access(("/dev/shm/" + names.prefix() + "_m_1").c_str(), F_OK), 0);
    EXPECT_EQ(access(("/dev/shm/sem." + names.prefix() + "_s_1").c_str(), F_OK), 0);

    IpcStorage* client = GetIpcStorage(kOwn, true);
    ASSERT_NE(client, nullptr);
    EXPECT_NE(client, server);
    client->post(client->allocMsgMem(4));
    EXPECT_NE(server->nextMessage(), nullptr);
    EXPECT_TRUE(GetIpcPoster(kOwn)->post());
    GetIpcPoster(kOwn)->forceNotify();
    for (const bool posted : {true, true, false})
        EXPECT_EQ(waiter->wait(0), posted) << "posts are counted";
}

TEST_F(IpcManagerTest, APrefixThatIsNoNameMakesNoChannel)
{
    constexpr ETransport kOwn = kTransport2;
    SetIpcSharePrefix("no/such/folder");
    IpcWaiter* waiter = GetIpcWaiter(kOwn);
    ASSERT_NE(waiter, nullptr);
    EXPECT_FALSE(GetIpcStorage(kOwn, false)->good());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(waiter->wait(50));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50))
        << "a pump must not spin";
    waiter->forceNotify();
    EXPECT_FALSE(IpcPoster("no/such/folder_s_2").post());
    EXPECT_FALSE(IpcPoster(std::string(400, 'x').c_str()).post());

    SetIpcSharePrefix(names.name(std::string(200, 'x')).c_str());
    EXPECT_TRUE(GetIpcStorage(kTransport3, false)->good()) << "what is only long is cut";
}

TEST_F(IpcManagerTest, ANewWaiterStartsFromZeroAndKeepsOldPosters)
{
    const std::string name = names.name("wake");
    EXPECT_FALSE(IpcPoster(name.c_str()).post()) << "nobody waits yet";
    const IpcWaiter older(name.c_str());
    IpcPoster poster(name.c_str());
    for (int i = 0; i < 5; ++i)
        EXPECT_TRUE(poster.post());
    IpcWaiter waiter(name.c_str());
    EXPECT_FALSE(waiter.wait(0));
    EXPECT_TRUE(poster.post());
    EXPECT_TRUE(waiter.wait(0));
}

TEST_F(IpcManagerTest, AClientGoesOnWhenItsServerIsKilledAndStartedAnew)
{
    CChild first([] { return serve(); });
    ASSERT_TRUE(eventually([] { return GetIpcStorage(kBus, true) != nullptr; }));
    IpcStorage* const ring = GetIpcStorage(kBus, true);
    ASSERT_TRUE(send("one"));
    ASSERT_TRUE(eventually([&] { return ring->usedBytes() == 0; })) << "the server has taken it";
    first.kill();

    int sent = 0;
    while (send("to nobody"))
        ++sent;
    EXPECT_EQ(sent, 65536 / 272) << "the ring fills and refuses";
    CChild second([] { return serve(); });
    ASSERT_TRUE(eventually([&] { return ring->usedBytes() == 0; })) << "the new server has emptied it";
    EXPECT_TRUE(send("two"));
    EXPECT_TRUE(send("stop"));
    EXPECT_EQ(GetIpcStorage(kBus, true), ring);
    EXPECT_EQ(second.wait(), 2) << "woken through the old client's semaphore";
}

TEST(TransportEndpoint, LooksUnderTheTableNameOnly)
{
    EXPECT_FALSE(TransportEndpointExists(kTransportNone));
    const korvotest::CSharedNames names("Local\\mem_7DA27024_C46E_489d_9BBC_78883B4BB5F8");
    auto ring = std::make_unique<IpcStorage>(65536, names.prefix().c_str(), false);
    EXPECT_TRUE(TransportEndpointExists(kTransport3));
    EXPECT_FALSE(TransportEndpointExists(kTransport4));
    ring.reset();
    EXPECT_FALSE(TransportEndpointExists(kTransport3));
}
