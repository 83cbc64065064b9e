// SPDX-License-Identifier: GPL-3.0-or-later
// Sends status notes to event_bus_server, for which it waits up to ten seconds.
//
//   event_bus_client [prefix [note ...]]
#include <chrono>
#include <cstdio>
#include <iostream>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include <event/status_note_event.h>
#include <event/transport/ipc_manager.h>

namespace {

constexpr auto kTransport = event::transport::kTransport8;

/// Whether `attempt` succeeds within ten seconds.
template<typename Attempt>
bool retry(Attempt attempt)
{
    for (int i = 0; i < 1000; ++i)
    {
        if (attempt())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

bool send(event::transport::IpcStorage& ring, event::transport::IpcPoster& poster, const std::string& text)
{
    void* slot = ring.allocMsgMem(sizeof(CStatusNoteEvent));
    if (slot == nullptr)
        return false;                         // the ring is full
    auto* note = new (slot) CStatusNoteEvent; // built where it travels
    std::snprintf(note->text, sizeof(note->text), "%s", text.c_str());
    ring.post(note);
    poster.post();
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    SetIpcSharePrefix(argc > 1 ? argv[1] : "korvo-example");
    std::vector<std::string> notes = {"hello", "bye"};
    if (argc > 2)
        notes.assign(argv + 2, argv + argc);

    event::transport::IpcStorage* ring = nullptr;
    if (!retry([&] { return (ring = event::transport::GetIpcStorage(kTransport, true)) != nullptr; }))
    {
        std::cerr << "event_bus_client: no server under that prefix\n";
        return 1;
    }
    event::transport::IpcPoster* poster = event::transport::GetIpcPoster(kTransport);
    for (const std::string& note : notes)
    {
        if (!retry([&] { return send(*ring, *poster, note); }))
        {
            std::cerr << "event_bus_client: the server takes no more notes\n";
            return 1;
        }
    }
    return 0;
}
