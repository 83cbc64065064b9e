// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <span>

#include "dsp/fiir_filter.h"
#include "dsp/ring_dot.h"

/// The vector kernels, compiled for several instruction sets with the same results to the bit.
namespace korvodsp {

struct SKernelVariant
{
    const char* name;
    /// FIIR_SSE. The FIR sum runs over the ring in the order of its slots, 16 at a time into four
    /// accumulators of four lanes, the slots that are left over into the first, and ends in ((l0 + l1) + l2)
    /// + l3 of (a0 + a1) + (a2 + a3). The sections run in direct form I without bias, y = (b0 x + b1 x1) -
    /// (a1 y1 + a2 y2); their outputs are added group by group, then lane by lane as above, and the FIR sum
    /// comes last.
    FiirKernel fiir;
    /// Those of ring_dot.h.
    decltype(&korvodsp::ringFilter) ringFilter;
    decltype(&korvodsp::ringDecimate) ringDecimate;
    decltype(&korvodsp::ringInterpolate) ringInterpolate;
};

/// Those that this machine can run, best first.
std::span<const SKernelVariant> kernelVariants();

/// The one in use.
const SKernelVariant& kernelVariant();

/// Makes filters that are created from now on use the variant of that name; null stands for the best. For
/// tests and benchmarks. @return false, with nothing changed, if the machine has no such variant
bool forceKernelVariant(const char* name);

} // namespace korvodsp
