// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

namespace korvotest {

/// What the allocator's counters say.
struct SAccounting
{
    unsigned long long most = 0;
    unsigned long long current = 0;
};

/// Reads the counters out of the message of an allocation that cannot succeed. Takes the log hook away.
SAccounting readAccounting();

/// While it lives, the toolbox's allocations on this thread fail from the one of number `first` on, counted
/// from 0.
class CFailingAllocations
{
public:
    explicit CFailingAllocations(int first);
    ~CFailingAllocations();
    CFailingAllocations(const CFailingAllocations&) = delete;
    CFailingAllocations& operator=(const CFailingAllocations&) = delete;
};

/// While it lives, no FFT plan can be made on this thread.
class CFailingPlans
{
public:
    CFailingPlans();
    ~CFailingPlans();
    CFailingPlans(const CFailingPlans&) = delete;
    CFailingPlans& operator=(const CFailingPlans&) = delete;
};

} // namespace korvotest
