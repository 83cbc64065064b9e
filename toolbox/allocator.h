// SPDX-License-Identifier: GPL-3.0-or-later
/// @file
/// The toolbox's allocator: aligned blocks, counted process-wide, with a hook that hears of failures.
#pragma once

#include "korvo_export.h"

namespace korvotoolbox {

/** Allocates `size` bytes at a 16-byte boundary. 0 bytes give a block as well.
 *
 *  A failure is reported to the hook of dtb_setlogfunction() in one message, with the size asked for and the
 *  largest and the present number of bytes allocated here; the counters stay as they were.
 *  @return the block, to be released by dtb_free(); null if memory is out
 *  @throws boost::lock_error if the lock on the counters cannot be had; nothing is allocated then
 *  Threads: any. Real time: no. */
KORVO_EXPORT void* dtb_alloc(unsigned long size);

/** Releases a block of dtb_alloc(). Null is ignored.
 *  @throws boost::lock_error if the lock on the counters cannot be had; the block stays
 *  Threads: any. Real time: no. */
KORVO_EXPORT void dtb_free(void* block);

/** Sets the hook that dtb_alloc() tells of a failure; null for none, as at the start. `user` comes back as
 * the hook's first argument, the rest is as for printf(): a format, then three unsigned long long. The hook
 * runs under the allocator's lock, so it must call none of the three functions of this file.
 *  @throws boost::lock_error if the lock cannot be had
 *  Threads: any. Real time: no. */
KORVO_EXPORT void dtb_setlogfunction(void (*log)(void* user, const char* format, ...), void* user);

} // namespace korvotoolbox
