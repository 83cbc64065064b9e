// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstddef>

namespace korvodsp {

/// What alignedAlloc() aligns to: a cache line, so that a vector of any width that is read from a multiple of
/// its own size never straddles two lines.
inline constexpr std::size_t kMemoryAlignment = 64;

/// The size from which on alignedAlloc() refuses. No filter, ring or block comes near it, and a count gone
/// wrong is caught here before the system is asked for it.
inline constexpr std::size_t kMemoryLimit = std::size_t{1} << 31;

/// @return `bytes` bytes, not cleared; null if `bytes` is 0, at or beyond kMemoryLimit, or not to be had. To
/// be
///         released with alignedFree().
void* alignedAlloc(std::size_t bytes) noexcept;

/// The same, all zero.
void* alignedAllocZeroed(std::size_t bytes) noexcept;

/// Null is ignored.
void alignedFree(void* memory) noexcept;

} // namespace korvodsp
