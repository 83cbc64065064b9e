// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace krv {

/// While it lives, Ctrl-C and its like raise a flag instead of ending the process, so that a file that is not
/// complete can be taken away; and a file-size limit shows as a failed write. A second one ends the process,
/// and still takes away the file that removeIfKilled() names. Signals that the caller has the process ignore,
/// as nohup does, stay ignored.
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

/// Names the file that must not outlive the process; null: none. The name must stay where it is until then.
void removeIfKilled(const char* path);

} // namespace krv
