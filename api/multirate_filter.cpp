// SPDX-License-Identifier: GPL-3.0-or-later
#include "api/multirate_filter.h"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <new>

#include "api/krv.h"

namespace korvo {

namespace {

/// How the taps of a filter are spread over phases.
struct SPhases
{
    std::size_t count;
    std::size_t taps;       ///< per phase
    std::size_t paddedTaps; ///< rounded up to a multiple of 4
};

SPhases phasesOf(const FIR_MULTIRATE_FILTER_tag& filter, int kind)
{
    // Half the length at ratio 4 as well, where a quarter would be expected: the taps that this adds are part
    // of how the stage sounds.
    const std::size_t count = kind == kInterpolatorKind ? filter.ratio : 1;
    const int32_t taps = kind == kInterpolatorKind ? filter.length / 2 : filter.length;
    const auto unsignedTaps = static_cast<std::size_t>(std::max(taps, int32_t{0}));
    return {count, unsignedTaps, (unsignedTaps + 3) & ~std::size_t{3}};
}

/// `slot` gets a cleared block of `count` floats in place of what it holds.
void reallocate(float*& slot, std::size_t count)
{
    krv_free(slot);
    slot = nullptr;
    const std::size_t bytes = count * sizeof(float);
    if (bytes > static_cast<std::size_t>(std::numeric_limits<int32_t>::max()))
        throw std::bad_alloc();
    slot = static_cast<float*>(krv_malloc(static_cast<int32_t>(bytes), 16));
    if (slot == nullptr)
        throw std::bad_alloc();
    std::fill_n(slot, count, 0.0F);
}

/// One phase into its four banks, each twice in a row.
void fillBanks(const FIR_MULTIRATE_FILTER_tag& filter, const SPhases& phases, std::size_t phase)
{
    const std::size_t length = phases.paddedTaps;
    float* const* banks = filter.banks + 4 * phase;
    for (std::size_t j = 0; j < phases.taps; ++j)
        for (std::size_t rotation = 0; rotation < 4; ++rotation)
        {
            const std::size_t to = (j + rotation) % length;
            banks[rotation][to] = filter.coefs[phases.count * j + phase];
            banks[rotation][to + length] = banks[rotation][to];
        }
}

void prepare(FIR_MULTIRATE_FILTER_tag& filter, const SPhases& phases)
{
    const std::size_t ratio = std::max(filter.ratio, uint32_t{1});
    for (std::size_t bank = 0; bank < 4 * phases.count; ++bank)
    {
        const bool isFirst = bank % 4 == 0;
        reallocate(filter.banks[bank],
                   isFirst ? korvodsp::firstBankSize(phases.paddedTaps, ratio) : 2 * phases.paddedTaps);
    }
    for (std::size_t phase = 0; phase < phases.count; ++phase)
    {
        fillBanks(filter, phases, phase);
        korvodsp::completeFirstBank(filter.banks[4 * phase], phases.paddedTaps, ratio);
    }
    reallocate(filter.delayLine, std::max(phases.paddedTaps, static_cast<std::size_t>(filter.length) + 1));
    filter.paddedLength = static_cast<uint32_t>(phases.paddedTaps);
}

} // namespace

bool prepareFIRcoefs(FIR_MULTIRATE_FILTER_tag* filter, int kind)
{
    try
    {
        prepare(*filter, phasesOf(*filter, kind));
        return true;
    }
    catch (const std::bad_alloc&)
    {
        releaseFIRcoefs(filter); // the block path takes an empty filter for one that it must not run
        return false;
    }
}

void releaseFIRcoefs(FIR_MULTIRATE_FILTER_tag* filter)
{
    filter->paddedLength = 0;
    krv_free(filter->delayLine);
    filter->delayLine = nullptr;
    for (float*& bank : filter->banks)
    {
        krv_free(bank);
        bank = nullptr;
    }
}

} // namespace korvo
