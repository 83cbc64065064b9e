// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace krv {

/// While it lives, Ctrl-C and its like raise a flag instead of ending the process, so that a file that is not
/// complete can be taken away; and a file-size limit shows as a failed write. A second Ctrl-C ends the
/// process.
class CInterruptGuard
{
public:
    CInterruptGuard();
    ~CInterruptGuard();
    CInterruptGuard(const CInterruptGuard&) = delete;
    CInterruptGuard& operator=(const CInterruptGuard&) = delete;

    /// Throws CCommandError once a signal has come.
    void check() const;
};

} // namespace krv
