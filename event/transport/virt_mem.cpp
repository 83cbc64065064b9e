// SPDX-License-Identifier: GPL-3.0-or-later
#include "event/transport/virt_mem.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace event::transport {

namespace {

constexpr int kShmFlagsOfOpen[] = {0, O_CREAT, O_CREAT | O_EXCL};
constexpr int kShmFlagsOfProt[] = {O_RDONLY, O_RDONLY, O_RDWR};
constexpr int kMapProtection[] = {PROT_NONE, PROT_READ, PROT_READ | PROT_WRITE};

/// Sizes a new object. A name that is left from a larger ring shrinks, one from a smaller ring grows.
bool reserve(int descriptor, unsigned int size)
{
    // Memory first: an object has its size when it has the pages, and neither where they are not to be had.
    // Else a full file system shows as a signal at the first write, to a client that attaches as well.
    int error = EINTR;
    while (error == EINTR)
        error = ::posix_fallocate(descriptor, 0, size);
    if (error == ENOSPC)
        return false;
    [[maybe_unused]] const int ignored = ::ftruncate(descriptor, size);
    return true;
}

/// False also between the creation of an object and its sizing, when touching it would end the process.
bool isLargeEnough(int descriptor, unsigned int size)
{
    struct stat state = {};
    return ::fstat(descriptor, &state) == 0 && state.st_size >= static_cast<off_t>(size);
}

int openObject(const char* name, unsigned int size, VirtMem::OpenFlags open, VirtMem::ProtFlags prot)
{
    char withSlash[64];
    if (name[0] != '/')
    {
        std::snprintf(withSlash, sizeof(withSlash), "/%s", name);
        name = withSlash;
    }
    const int descriptor = ::shm_open(name, kShmFlagsOfOpen[open] | kShmFlagsOfProt[prot], 0666);
    if (descriptor == -1)
        return -1;
    const bool sized = open == VirtMem::kOpenExisting || reserve(descriptor, size);
    if (sized && isLargeEnough(descriptor, size))
        return descriptor;
    ::close(descriptor);
    return -1;
}

} // namespace

void* VirtMem::alloc(unsigned int size, const char* name, OpenFlags open, ProtFlags prot, bool shared,
                     long& handle)
{
    if (name != nullptr)
    {
        handle = openObject(name, size, open, prot);
        if (handle == INVALID_NATIVE_HANDLE)
            return nullptr;
    }
    const int flags = (shared ? MAP_SHARED : MAP_PRIVATE) | (name == nullptr ? MAP_ANONYMOUS : 0);
    void* address = ::mmap(nullptr, size, kMapProtection[prot], flags, static_cast<int>(handle), 0);
    if (address != MAP_FAILED)
        return address;
    if (handle != INVALID_NATIVE_HANDLE)
        close(handle);
    handle = INVALID_NATIVE_HANDLE;
    return nullptr;
}

bool VirtMem::unmap(void* address, unsigned int size)
{
    return ::munmap(address, size) != -1;
}

bool VirtMem::close(long handle)
{
    return ::close(static_cast<int>(handle)) != -1;
}

bool VirtMem::unlink(const char* name)
{
    return ::shm_unlink(name) == 0;
}

bool VirtMem::lock(void* address, unsigned int size)
{
    return ::mlock(address, size) != -1;
}

bool VirtMem::unlock(void* address, unsigned int size)
{
    return ::munlock(address, size) != -1;
}

} // namespace event::transport
