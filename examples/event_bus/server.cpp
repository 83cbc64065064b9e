// SPDX-License-Identifier: GPL-3.0-or-later
// Prints the status notes that a client sends, until a note says "bye" or the process is interrupted.
//
//   event_bus_server [prefix]
#include <csignal>
#include <cstring>
#include <iostream>
#include <string>

#include <event/dispatcher.h>
#include <event/event_handler.h>
#include <event/status_note_event.h>
#include <event/transport/ipc_manager.h>

namespace {

constexpr auto kTransport = event::transport::kTransport8;

volatile std::sig_atomic_t s_stop = 0;

void stop(int)
{
    s_stop = 1;
}

class CNotePrinter : public event::CEventHandler<CStatusNoteEvent, kTransport>
{
public:
    void onEvent(CStatusNoteEvent const& note) override
    {
        // The note lies in the ring, where another process has written it: trust no terminator.
        const std::string text(note.text, strnlen(note.text, sizeof(note.text)));
        std::cout << text << std::endl;
        if (text == "bye")
            s_stop = 1;
    }
};

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGINT, stop);
    std::signal(SIGTERM, stop);
    SetIpcSharePrefix(argc > 1 ? argv[1] : "korvo-example");

    // The waiter first: a client takes the ring as the sign that all is there.
    event::transport::TransportServerSynced server;
    server.waiter = event::transport::GetIpcWaiter(kTransport);
    server.storage = event::transport::GetIpcStorage(kTransport, false);
    server.transport = kTransport;
    if (!server.storage->good())
    {
        std::cerr << "event_bus_server: no shared memory under that prefix\n";
        return 1;
    }

    CNotePrinter printer;
    while (s_stop == 0)
    {
        unsigned int unhandled = 0;
        const auto result = event::dispatch::DispatchEventForServer(server, 200, &unhandled);
        if (result == event::dispatch::kNoHandler)
            std::cerr << "event_bus_server: nobody takes " << event::GetTypeNameForId(unhandled) << '\n';
    }
    return 0;
}
