// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstdint>
#include <string>

namespace krv {

/// How the library serves a stream of one rate: filtered directly, or split in two bands of which the lower
/// one is filtered at a base rate.
struct SStreamRate
{
    std::uint32_t rate = 0;      ///< Hz
    std::uint32_t baseRate = 0;  ///< Hz; the rate of the filter that runs
    std::uint32_t ratio = 1;     ///< rate / baseRate; blocks must be multiples of it
    std::uint32_t bandDelay = 0; ///< frames that the two bands add to the filter's latency

    bool isTwoBand() const { return ratio > 1; }
};

inline SStreamRate streamRate(std::uint32_t rate)
{
    switch (rate)
    {
    case 176400:
    case 192000:
        return {rate, rate / 2, 2, 41};
    case 352800:
    case 384000:
        return {rate, rate / 4, 4, 81};
    default:
        return {rate, rate, 1, 0};
    }
}

inline std::string pathName(const SStreamRate& stream)
{
    if (!stream.isTwoBand())
        return "direct";
    return "two-band, base rate " + std::to_string(stream.baseRate) + " Hz, ratio " +
           std::to_string(stream.ratio);
}

} // namespace krv
