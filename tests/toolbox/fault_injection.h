// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <climits>

namespace korvotest {

/// What the allocator's counters say.
struct SAccounting
{
    unsigned long long most = 0;
    unsigned long long current = 0;
};

/// Reads the counters out of the message of an allocation that cannot succeed. Takes the log hook away.
SAccounting readAccounting();

/// While it lives, toolbox allocations of this thread fail after `allocations` of them, and so do all FFT
/// plans if `plansFail` is set.
class CFaults
{
public:
    explicit CFaults(int allocations, bool plansFail = false);
    ~CFaults();
    CFaults(const CFaults&) = delete;
    CFaults& operator=(const CFaults&) = delete;
};

} // namespace korvotest
