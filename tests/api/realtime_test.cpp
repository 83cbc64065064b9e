// SPDX-License-Identifier: GPL-3.0-or-later
// Proof that the audio path neither allocates nor enters the kernel, and that creation survives without
// memory. Sanitizers do both behind its back and have a heap of their own, so that there is nothing to prove
// under them.
#include <gtest/gtest.h>

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

#include <linux/seccomp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <thread>
#include <utility>

#include "tests/support/processor.h"

namespace {

thread_local bool t_counting = false;
thread_local unsigned t_allocations = 0;
thread_local unsigned t_refusedAllocation = 0; ///< the one that fails while counting, from 1; 0 for none

/// False for an allocation that is to fail.
bool noteAllocation()
{
    return !t_counting || ++t_allocations != t_refusedAllocation;
}

/// Calls of the heap that `action` makes on this thread.
template<typename Action>
unsigned allocationsOf(Action&& action)
{
    t_allocations = 0;
    t_counting = true;
    action();
    t_counting = false;
    return t_allocations;
}

} // namespace

// Every way into the C library's heap, `new` among them, goes through these and is counted while a test says
// so.
extern "C" {

void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void __libc_free(void*);

void* malloc(std::size_t size)
{
    return noteAllocation() ? __libc_malloc(size) : nullptr;
}
void* calloc(std::size_t count, std::size_t size)
{
    return noteAllocation() ? __libc_calloc(count, size) : nullptr;
}
void* realloc(void* block, std::size_t size)
{
    noteAllocation();
    return __libc_realloc(block, size);
}
void* memalign(std::size_t alignment, std::size_t size)
{
    noteAllocation();
    return __libc_memalign(alignment, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size)
{
    return memalign(alignment, size);
}
int posix_memalign(void** block, std::size_t alignment, std::size_t size)
{
    *block = memalign(alignment, size);
    return *block == nullptr ? ENOMEM : 0;
}
void free(void* block)
{
    noteAllocation();
    __libc_free(block);
}

} // extern "C"

using korvotest::CProcessor;
using korvotest::SSet;

namespace {

constexpr unsigned kChannels = 2;
constexpr unsigned kFrames = 64;
constexpr unsigned kRates[] = {44100, 48000, 88200, 96000, 176400, 192000, 352800, 384000};

std::vector<korvotest::SChannel> document()
{
    std::vector<SSet> sets;
    for (const unsigned rate : kRates)
        sets.push_back({rate, false, std::vector<float>(123, 0.01F), {{-1.5F, 0.6F, 0.01F, 0.01F}}});
    return korvotest::sameChannels(kChannels, sets);
}

/// One block of any format; a few samples beyond full scale among them.
struct SBlock
{
    alignas(16) unsigned char input[kFrames * kChannels * 4];
    alignas(16) unsigned char output[kFrames * kChannels * 4];

    SBlock()
    {
        for (unsigned i = 0; i < sizeof input; ++i)
            input[i] = static_cast<unsigned char>(i * 37 % 0x3F); // small exponents: finite as floats
    }
};

/// All that an audio thread may meet: running, faded out, disabled, faded in, gains and delays on the move.
void exerciseAudioPath(krv_handle handle, SBlock& block)
{
    for (int i = 0; i < 12; ++i)
    {
        if (i == 3 || i == 8)
            krv_enable(handle, i == 8);
        krv_setChannelGain(handle, 0, static_cast<float>(i));
        krv_setChannelDelay(handle, 1, static_cast<float>(i * 3));
        krv_process(handle, block.input, block.output, kFrames - static_cast<unsigned>(i) % 3 * 4, kChannels);
    }
}

/// Runs `audio` on a thread that the kernel kills at any system call but read, write and exit, with `control`
/// beside it, and ends the process: with success if the thread has come through and has not touched the heap.
template<typename Audio, typename Control>
[[noreturn]] void runLockedDown(Audio&& audio, Control&& control)
{
    std::atomic<pid_t> threadId{0};
    std::atomic<bool> done{false};
    std::thread thread([&] {
        const pid_t id = gettid();
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT);
        threadId = id;
        done = allocationsOf(audio) == 0;
        syscall(SYS_exit, 0); // the thread alone; anything that the C library does to end it would be refused
    });
    while (threadId == 0)
        std::this_thread::yield();
    control();
    // The kernel kills the one thread and leaves the process.
    while (!done && tgkill(getpid(), threadId, 0) == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    _exit(done ? 0 : 1);
}

template<typename Audio>
bool survivesLockedDown(Audio&& audio)
{
    const pid_t child = fork();
    if (child == 0)
        runLockedDown(audio, [] {});
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

/// Mode 2 is asked for while mode 1 plays; ends once the new filters have played for a while.
void exchangeFiltersLockedDown()
{
    SBlock block;
    CProcessor processor(kChannels, kFrames);
    if (processor.load(document()) != KRV_STATUS_OK || krv_setSamplerate(processor, 48000) != KRV_STATUS_OK)
        _exit(1);
    runLockedDown(
        [&] {
            for (std::uint32_t mode = 1; mode != 2; krv_getFilterOperatingMode(processor, &mode))
                krv_process(processor, block.input, block.output, kFrames, kChannels);
            exerciseAudioPath(processor, block);
        },
        [&] { krv_setFilterOperatingMode(processor, 2); });
}

} // namespace

TEST(RealTime, AThreadThatMakesASystemCallOrAllocatesIsFoundOut)
{
    EXPECT_FALSE(survivesLockedDown([] { getppid(); }));
    void* volatile none = nullptr; // so that the compiler cannot leave the call out
    EXPECT_FALSE(survivesLockedDown([&] { free(none); }));
    EXPECT_TRUE(survivesLockedDown([] {}));
}

TEST(RealTime, ProcessNeitherAllocatesNorEntersTheKernel)
{
    SBlock block;
    for (const unsigned rate : kRates)
        for (int in = 1; in <= 5; ++in)
            for (int out = 1; out <= 5; ++out)
            {
                // The paths know nothing of the formats: one rate of either will do for the mixed pairs.
                if (in != out && rate != 48000 && rate != 384000)
                    continue;
                SCOPED_TRACE(testing::Message() << rate << " Hz, format " << in << " to " << out);
                CProcessor processor(kChannels, kFrames, in, out);
                ASSERT_EQ(processor.load(document()), KRV_STATUS_OK);
                ASSERT_EQ(krv_setSamplerate(processor, rate), KRV_STATUS_OK);
                const auto exercise = [&] { exerciseAudioPath(processor, block); };
                EXPECT_EQ(allocationsOf(exercise), 0U);
                EXPECT_TRUE(in != out || survivesLockedDown(exercise));
            }
}

TEST(Instance, CreationWithoutMemoryGivesNoHandle)
{
    krv_handle handle = nullptr;
    int status = KRV_STATUS_OUT_OF_MEMORY;
    while (status == KRV_STATUS_OUT_OF_MEMORY && handle == nullptr)
    {
        ++t_refusedAllocation;
        allocationsOf([&] { status = krv_create(&handle, 2, 64, KRV_FORMAT_FLOAT32, KRV_FORMAT_FLOAT32); });
    }
    EXPECT_EQ(status, KRV_STATUS_OK);
    EXPECT_EQ(krv_destroy(handle), KRV_STATUS_OK);
    EXPECT_GT(std::exchange(t_refusedAllocation, 0), 100U)
        << "engine, buffers and filters for eight channels take more than that";
}

TEST(RealTime, FilterExchangeDoesNotEnterTheKernelEither)
{
    // In a process of its own, since the threads that read filter files do not survive a fork.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(exchangeFiltersLockedDown(), testing::ExitedWithCode(0), "");
}

#endif
