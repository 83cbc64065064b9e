// SPDX-License-Identifier: GPL-3.0-or-later
#include "apps/krv/time_statistics.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace krv {

// Below 64 ns each nanosecond is a bin. From there on the 6 bits behind the leading one pick the bin of an
// octave.
std::size_t CTimeStatistics::binOf(std::uint64_t nanoseconds)
{
    if (nanoseconds < kBinsPerOctave)
        return nanoseconds;
    const auto shift = static_cast<unsigned>(std::bit_width(nanoseconds)) - 7;
    return shift * kBinsPerOctave + static_cast<std::size_t>(nanoseconds >> shift);
}

double CTimeStatistics::middleOf(std::size_t bin)
{
    if (bin < 2 * kBinsPerOctave)
        return static_cast<double>(bin);
    const auto shift = static_cast<int>(bin / kBinsPerOctave) - 1;
    const auto mantissa = static_cast<double>(bin % kBinsPerOctave + kBinsPerOctave);
    return std::ldexp(mantissa + 0.5, shift);
}

void CTimeStatistics::add(std::chrono::nanoseconds time)
{
    const auto nanoseconds = static_cast<std::uint64_t>(std::max<std::int64_t>(time.count(), 0));
    ++m_bins[binOf(nanoseconds)];
    ++m_count;
    m_maximum = std::max(m_maximum, nanoseconds);
}

double CTimeStatistics::quantile(double share) const
{
    const auto wanted = static_cast<std::uint64_t>(std::ceil(share * static_cast<double>(m_count)));
    std::uint64_t reached = 0;
    for (std::size_t bin = 0; bin < m_bins.size(); ++bin)
    {
        reached += m_bins[bin];
        if (reached >= wanted && reached > 0)
            return std::min(middleOf(bin) * 1e-9, maximum());
    }
    return 0.0;
}

} // namespace krv
