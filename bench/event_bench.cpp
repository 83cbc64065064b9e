// SPDX-License-Identifier: GPL-3.0-or-later
// The event bus beside what else carries messages: between threads LocalStorage and
// boost::lockfree::spsc_queue, both polled; between processes the whole way from IpcStorage to a handler, and
// boost::interprocess::message_queue and a Unix socket, all of them sleeping while there is nothing to do.
// Every message is written once from a record, in process by the same code for both, and read to its last
// word. The two ends have a processor each.
#include <benchmark/benchmark.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/interprocess/ipc/message_queue.hpp>
#include <boost/lockfree/spsc_queue.hpp>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "bench/ratio.h"
#include "event/dispatcher.h"
#include "event/event_handler.h"
#include "event/transport/ipc_storage.h"
#include "event/transport/local_storage.h"
#include "event/transport/notification.h"

using namespace event;

namespace {

constexpr unsigned int kRingBytes = 65536;
/// All queues hold as many messages as the ring does.
constexpr std::size_t messagesInRing(unsigned int bytes)
{
    return kRingBytes / ((bytes + 15) & ~7U);
}

enum EOrder : std::uint32_t
{
    kTake,
    kReply,
    kStop
};

template<unsigned int bytes>
class CRecord : public CEventIdBase<CRecord<bytes>>
{
public:
    explicit CRecord(std::uint32_t order = kTake) { words.fill(order); }
    /// The same copy into a slot of the ring and into a queue, or the compiler may find a slow one for
    /// either.
    CRecord(const CRecord& other) : CEventIdBase<CRecord<bytes>>(other)
    {
        std::size_t size = sizeof(words);
        if constexpr (bytes > 64)
            benchmark::DoNotOptimize(size); // the library's memcpy
        std::memcpy(words.data(), other.words.data(), size);
    }
    std::array<std::uint32_t, bytes / 4 - 1> words;
};

/// The receiver's part: reads all of a record, gives what its sender wants.
template<unsigned int bytes>
std::uint32_t read(const CRecord<bytes>& record)
{
    benchmark::DoNotOptimize(std::accumulate(record.words.begin(), record.words.end(), 0U));
    return record.words[0];
}

/// One turn of a poll. On a machine that others use as well, a thread that polls on and on can keep the one
/// that it waits for from running.
class CPoll
{
public:
    void operator()()
    {
        if (++m_turns % 1024 == 0)
            std::this_thread::yield();
        else
            __builtin_ia32_pause();
    }

private:
    unsigned int m_turns = 0;
};

std::string ownName()
{
    static int s_count = 0;
    return "korvobench-" + std::to_string(getpid()) + "-" + std::to_string(s_count++);
}

[[noreturn]] void giveUp(const char* what)
{
    std::perror(what);
    std::exit(1);
}

// Each link carries records one way, in process (threads) or between processes.

template<unsigned int bytes>
class CLocalBus
{
public:
    static constexpr bool kProcesses = false;
    void send(const CRecord<bytes>& record)
    {
        CPoll relax;
        void* slot = m_ring.allocMsgMem(bytes);
        for (; slot == nullptr; slot = m_ring.allocMsgMem(bytes))
            relax();
        m_ring.post(new (slot) CRecord<bytes>(record));
    }
    std::uint32_t receive()
    {
        CPoll relax;
        const void* message = m_ring.nextMessage();
        for (; message == nullptr; message = m_ring.nextMessage())
            relax();
        const std::uint32_t order = read(*static_cast<const CRecord<bytes>*>(message));
        m_ring.advanceToNext();
        return order;
    }

private:
    transport::LocalStorage m_ring{kRingBytes};
};

template<unsigned int bytes>
class CLockfreeQueue
{
public:
    static constexpr bool kProcesses = false;
    void send(const CRecord<bytes>& record)
    {
        CPoll relax;
        while (!m_queue.push(record))
            relax();
    }
    std::uint32_t receive()
    {
        CPoll relax;
        std::uint32_t order = kTake;
        // In place, as with the ring: pop() would cost a copy.
        while (!m_queue.consume_one([&](const CRecord<bytes>& record) { order = read(record); }))
            relax();
        return order;
    }

private:
    boost::lockfree::spsc_queue<CRecord<bytes>, boost::lockfree::capacity<messagesInRing(bytes)>> m_queue;
};

template<unsigned int bytes>
class CIpcBus : private CEventHandlerBase
{
public:
    static constexpr bool kProcesses = true;
    explicit CIpcBus(transport::ETransport onTransport)
        : CEventHandlerBase(CRecord<bytes>::s_kId, onTransport)
    {
        sem_unlink(("/" + m_name).c_str());
        if (!m_server.good() || !m_client.good())
            giveUp("shared memory");
    }
    void send(const CRecord<bytes>& record)
    {
        void* slot = m_client.allocMsgMem(bytes);
        for (; slot == nullptr; slot = m_client.allocMsgMem(bytes))
            std::this_thread::yield();
        m_client.post(new (slot) CRecord<bytes>(record));
        m_poster.post();
    }
    std::uint32_t receive()
    {
        transport::TransportServerSynced server{{&m_server, CEventHandlerBase::transport}, &m_waiter};
        while (dispatch::DispatchEventForServer(server, 1000, nullptr) != dispatch::kDispatched)
        {
        }
        return m_order;
    }

private:
    void onEvent(CEventBase const& event) override
    {
        m_order = read(static_cast<const CRecord<bytes>&>(event));
    }

    std::string m_name = ownName();
    transport::IpcWaiter m_waiter{m_name.c_str()};
    transport::IpcStorage m_server{kRingBytes, m_name.c_str(), false};
    transport::IpcStorage m_client{kRingBytes, m_name.c_str(), true};
    transport::IpcPoster m_poster{m_name.c_str()};
    std::uint32_t m_order = kTake;
};

template<unsigned int bytes>
class CMessageQueue
{
public:
    static constexpr bool kProcesses = true;
    explicit CMessageQueue(transport::ETransport)
    {
        boost::interprocess::message_queue::remove(m_name.c_str());
    }
    void send(const CRecord<bytes>& record) { m_queue.send(&record, bytes, 0); }
    std::uint32_t receive()
    {
        CRecord<bytes> record;
        std::size_t received = 0;
        unsigned int priority = 0;
        m_queue.receive(&record, bytes, received, priority);
        return read(record);
    }

private:
    std::string m_name = ownName();
    boost::interprocess::message_queue m_queue{boost::interprocess::create_only, m_name.c_str(),
                                               messagesInRing(bytes), bytes};
};

template<unsigned int bytes>
class CUnixSocket
{
public:
    static constexpr bool kProcesses = true;
    explicit CUnixSocket(transport::ETransport)
    {
        if (socketpair(AF_UNIX, SOCK_SEQPACKET, 0, m_ends) != 0)
            giveUp("socketpair");
    }
    ~CUnixSocket()
    {
        close(m_ends[0]);
        close(m_ends[1]);
    }
    void send(const CRecord<bytes>& record)
    {
        if (::send(m_ends[0], &record, bytes, 0) != bytes)
            giveUp("send");
    }
    std::uint32_t receive()
    {
        CRecord<bytes> record;
        if (::recv(m_ends[1], &record, bytes, 0) != bytes)
            giveUp("recv");
        return read(record);
    }

private:
    int m_ends[2] = {};
};

/// Keeps the calling thread on one of the processors that it may use, the first or the last, until the end.
/// Left to the scheduler, some links have both ends on one processor and others have not: a wake-up takes ten
/// times longer across.
class CPlace
{
public:
    explicit CPlace(bool last)
    {
        sched_getaffinity(0, sizeof(m_before), &m_before);
        std::size_t chosen = CPU_SETSIZE;
        for (std::size_t i = 0; i < CPU_SETSIZE && (chosen == CPU_SETSIZE || last); ++i)
            chosen = CPU_ISSET(i, &m_before) ? i : chosen;
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(chosen, &one);
        sched_setaffinity(0, sizeof(one), &one);
    }
    ~CPlace() { sched_setaffinity(0, sizeof(m_before), &m_before); }
    CPlace(const CPlace&) = delete;
    CPlace& operator=(const CPlace&) = delete;

private:
    cpu_set_t m_before;
};

/// A link there and one back, and who answers at the far end.
template<template<unsigned int> class Link, unsigned int bytes>
class CPair
{
public:
    /// Runs `work` while the far end is there.
    void withPeer(const std::function<void()>& work)
    {
        if constexpr (Link<bytes>::kProcesses)
        {
            const pid_t peer = fork();
            if (peer < 0)
                giveUp("fork");
            if (peer == 0)
            {
                prctl(PR_SET_PDEATHSIG, SIGKILL);
                serve();
                _exit(0);
            }
            const CPlace place(false);
            work();
            m_there->send(CRecord<bytes>(kStop));
            waitpid(peer, nullptr, 0);
        }
        else
        {
            std::thread peer([this] { serve(); });
            const CPlace place(false);
            work();
            m_there->send(CRecord<bytes>(kStop));
            peer.join();
        }
    }

    double messagesPerSecond(int count)
    {
        const CRecord<bytes> record;
        const auto start = std::chrono::steady_clock::now();
        for (int i = 1; i < count; ++i)
            m_there->send(record);
        m_there->send(CRecord<bytes>(kReply));
        m_back->receive();
        return count / std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }

    /// Seconds of each round trip, ascending.
    std::vector<double> roundTrips(int count)
    {
        const CRecord<bytes> record(kReply);
        std::vector<double> times;
        times.reserve(static_cast<std::size_t>(count));
        auto last = std::chrono::steady_clock::now();
        for (int i = 0; i < count; ++i)
        {
            m_there->send(record);
            m_back->receive();
            const auto now = std::chrono::steady_clock::now();
            times.push_back(std::chrono::duration<double>(now - last).count());
            last = now;
        }
        std::sort(times.begin(), times.end());
        return times;
    }

private:
    static std::unique_ptr<Link<bytes>> makeLink(transport::ETransport onTransport)
    {
        if constexpr (Link<bytes>::kProcesses)
            return std::make_unique<Link<bytes>>(onTransport);
        else
            return std::make_unique<Link<bytes>>();
    }

    void serve()
    {
        const CPlace place(true);
        const CRecord<bytes> answer;
        for (std::uint32_t order = kTake; order != kStop; order = m_there->receive())
        {
            if (order == kReply)
                m_back->send(answer);
        }
    }

    std::unique_ptr<Link<bytes>> m_there = makeLink(transport::kTransport0);
    std::unique_ptr<Link<bytes>> m_back = makeLink(transport::kTransport1);
};

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// What one comparison has shown: bus over yardstick, and the bus and the yardstick themselves.
struct SFigures
{
    std::vector<double> ratios, bus, yardstick;
    void add(double ofBus, double ofYardstick)
    {
        bus.push_back(ofBus);
        yardstick.push_back(ofYardstick);
        ratios.push_back(ofBus / ofYardstick);
    }
    double report(const std::string& row, const char* unit, double scale) const
    {
        std::printf("%s: %.3g %s, yardstick %.3g %s\n", row.c_str(), median(bus) * scale, unit,
                    median(yardstick) * scale, unit);
        return median(ratios);
    }
};

constexpr int kRounds = 11;

/// The links of one round. How long a cache line takes from one core to the other depends on its address, so
/// each round has links at other addresses: those of threads stay until the last one.
template<template<unsigned int> class Link, unsigned int bytes>
class CPairs
{
public:
    CPair<Link, bytes>& next()
    {
        if constexpr (Link<bytes>::kProcesses)
            m_pairs.clear();
        return *m_pairs.emplace_back(std::make_unique<CPair<Link, bytes>>());
    }

private:
    std::vector<std::unique_ptr<CPair<Link, bytes>>> m_pairs;
};

template<template<unsigned int> class Bus, template<unsigned int> class Yardstick, unsigned int bytes>
class CComparison
{
public:
    static double throughput(const std::string& row)
    {
        constexpr int kCount = (Bus<bytes>::kProcesses ? 20000 : 200000) / (bytes > 1000 ? 4 : 1);
        CPairs<Bus, bytes> buses;
        CPairs<Yardstick, bytes> yardsticks;
        SFigures figures;
        for (int round = 0; round < kRounds; ++round)
        {
            CPair<Bus, bytes>& bus = buses.next();
            CPair<Yardstick, bytes>& yardstick = yardsticks.next();
            double rates[2] = {};
            bus.withPeer([&] { rates[0] = bus.messagesPerSecond(kCount); });
            yardstick.withPeer([&] { rates[1] = yardstick.messagesPerSecond(kCount); });
            figures.add(rates[0], rates[1]);
        }
        return figures.report(row, "M messages/s", 1e-6);
    }

    static double roundTripMedian(const std::string& row)
    {
        return roundTrips().first.report(row, "us", 1e6);
    }
    static double roundTripTail(const std::string& row) { return roundTrips().second.report(row, "us", 1e6); }

private:
    /// Median and 99th percentile, measured once for both rows.
    static const std::pair<SFigures, SFigures>& roundTrips()
    {
        static const std::pair<SFigures, SFigures> s_figures = [] {
            constexpr int kCount = Bus<bytes>::kProcesses ? 1500 : 20000;
            CPairs<Bus, bytes> buses;
            CPairs<Yardstick, bytes> yardsticks;
            std::pair<SFigures, SFigures> figures;
            for (int round = 0; round < kRounds; ++round)
            {
                CPair<Bus, bytes>& bus = buses.next();
                CPair<Yardstick, bytes>& yardstick = yardsticks.next();
                std::vector<double> times[2];
                bus.withPeer([&] { times[0] = bus.roundTrips(kCount); });
                yardstick.withPeer([&] { times[1] = yardstick.roundTrips(kCount); });
                figures.first.add(times[0][kCount / 2], times[1][kCount / 2]);
                figures.second.add(times[0][kCount * 99 / 100], times[1][kCount * 99 / 100]);
            }
            return figures;
        }();
        return s_figures;
    }
};

template<template<unsigned int> class Bus, template<unsigned int> class Yardstick, unsigned int... bytes>
bool registerComparison(const std::string& row, const std::string& yardstick)
{
    using korvobench::EBetter;
    const auto add = [&](const std::string& name, EBetter better, double (*measure)(const std::string&)) {
        return korvobench::registerRow({name, yardstick, 0.0, 1.0, better}, [=] { return measure(name); });
    };
    const auto addSize = [&]<unsigned int size>() {
        using Comparison = CComparison<Bus, Yardstick, size>;
        const std::string name = row + "/" + std::to_string(size);
        add(name, EBetter::Larger, Comparison::throughput);
        add(name + "/rtt-median", EBetter::Smaller, Comparison::roundTripMedian);
        add(name + "/rtt-p99", EBetter::Smaller, Comparison::roundTripTail);
        return true;
    };
    return (addSize.template operator()<bytes>() && ...);
}

const bool s_rows[] = {
    registerComparison<CLocalBus, CLockfreeQueue, 16, 260, 4096>("event/local",
                                                                 "boost::lockfree::spsc_queue"),
    registerComparison<CIpcBus, CMessageQueue, 16, 260, 4096>("event/ipc-queue", "boost message_queue"),
    registerComparison<CIpcBus, CUnixSocket, 16, 260, 4096>("event/ipc-socket", "Unix socket"),
};

} // namespace
