// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/allocator.h"

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>

#include <climits>
#include <cstdint>
#include <memory>

#include "toolbox/numeric_kernels.h"

namespace korvotoolbox {

// A block as MKL_malloc() gives it:
//
//   | size (8 bytes) | unused (8 bytes) | what the caller sees, 16-byte aligned ...
//
namespace {

constexpr unsigned long kHeaderBytes = 16;
constexpr int kAlignment = 16;

using LogFunction = void (*)(void*, const char*, ...);
using Lock = boost::lock_guard<boost::mutex>;

boost::mutex sMutexMemAlloc; // guards all that follows
std::uint64_t sCurrentMemAlloc = 0;
std::uint64_t sMaxMemAlloc = 0;
LogFunction sLogFunction = nullptr;
void* sUserData = nullptr;

struct SRawRelease
{
    void operator()(void* raw) const { MKL_free(raw); }
};

unsigned char* allocateRaw(unsigned long size)
{
    if (size > ULONG_MAX - kHeaderBytes)
        return nullptr;
    return static_cast<unsigned char*>(MKL_malloc(size + kHeaderBytes, kAlignment));
}

} // namespace

void* dtb_alloc(unsigned long size)
{
    std::unique_ptr<unsigned char, SRawRelease> raw(allocateRaw(size)); // given back if the lock throws
    const Lock lock(sMutexMemAlloc);
    if (raw == nullptr)
    {
        if (sLogFunction != nullptr)
            sLogFunction(sUserData, "dtb_alloc failed size=%llu (max %llu bytes, current %llu)",
                         static_cast<unsigned long long>(size), static_cast<unsigned long long>(sMaxMemAlloc),
                         static_cast<unsigned long long>(sCurrentMemAlloc));
        return nullptr;
    }
    *reinterpret_cast<unsigned long*>(raw.get()) = size;
    sCurrentMemAlloc += size;
    if (sCurrentMemAlloc > sMaxMemAlloc)
        sMaxMemAlloc = sCurrentMemAlloc;
    return raw.release() + kHeaderBytes;
}

void dtb_free(void* block)
{
    if (block == nullptr)
        return;
    const Lock lock(sMutexMemAlloc);
    unsigned char* raw = static_cast<unsigned char*>(block) - kHeaderBytes;
    sCurrentMemAlloc -= *reinterpret_cast<const unsigned long*>(raw);
    MKL_free(raw);
}

void dtb_setlogfunction(LogFunction log, void* user)
{
    const Lock lock(sMutexMemAlloc);
    sLogFunction = log;
    sUserData = user;
}

} // namespace korvotoolbox
