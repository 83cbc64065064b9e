// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include "korvo_export.h"

namespace event::transport {

/// The operating system's shared memory, as IpcStorage needs it.
///  Threads: any. Real time: no; each is a system call or several.
class KORVO_EXPORT VirtMem
{
public:
    enum OpenFlags
    {
        kOpenExisting = 0,
        kOpenCreate = 1,
        kOpenCreateExclusive = 2
    };
    enum ProtFlags
    {
        kProtNone = 0,
        kProtRead = 1,
        kProtReadWrite = 2
    };
    static constexpr long INVALID_NATIVE_HANDLE = -1;

    /** Opens or creates a shared object and maps it.
     *  @param size   bytes; an object that is opened must have them, one that is created gets them
     *  @param name   gets a leading slash if it has none, and is then cut to 63 characters; null maps memory
     *                without a name, with `handle` at INVALID_NATIVE_HANDLE before the call
     *  @param shared whether others see what is written
     *  @param handle receives the object's descriptor, INVALID_NATIVE_HANDLE on failure
     *  @return the address, or null */
    static void* alloc(unsigned int size, const char* name, OpenFlags open, ProtFlags prot, bool shared,
                       long& handle);

    static bool unmap(void* address, unsigned int size);
    static bool close(long handle);
    /** @param name with its leading slash */
    static bool unlink(const char* name);
    /** Pins pages in memory. */
    static bool lock(void* address, unsigned int size);
    static bool unlock(void* address, unsigned int size);
};

} // namespace event::transport
