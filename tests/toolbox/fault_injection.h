// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <climits>
#include <string>

namespace korvotest {

/// What the allocator's counters say.
struct SAccounting
{
    unsigned long long most = 0;
    unsigned long long current = 0;
    std::string message; ///< that told of it
};

/// Has an allocation fail, which tells the counters. Takes the log hook away.
SAccounting readAccounting(unsigned long impossibleSize = ULONG_MAX);

/// While it lives, toolbox allocations of this thread fail after `allocations` of them, `new (std::nothrow)`
/// after `news`, and all FFT plans if `plansFail` is set.
class CFaults
{
public:
    explicit CFaults(int allocations, bool plansFail = false, int news = INT_MAX)
    {
        s_allocationsLeft = allocations;
        s_plansFail = plansFail;
        s_newsLeft = news;
    }
    ~CFaults()
    {
        s_allocationsLeft = s_newsLeft = INT_MAX;
        s_plansFail = false;
    }

    static inline thread_local int s_allocationsLeft = INT_MAX;
    static inline thread_local bool s_plansFail = false;
    static inline thread_local int s_newsLeft = INT_MAX;
};

} // namespace korvotest
