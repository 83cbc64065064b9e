// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <array>
#include <chrono>
#include <cstdint>

namespace krv {

/// Median, 99th percentile and maximum of any number of times in constant memory: a histogram whose bins are
/// 1/64 of their power of two wide, so that a quantile is off by less than 1 %. The maximum is exact.
class CTimeStatistics
{
public:
    void add(std::chrono::nanoseconds time);

    std::uint64_t count() const { return m_count; }
    /// Seconds below or at which the share `share`, 0 to 1, of all times lies; 0 without any time.
    double quantile(double share) const;
    double median() const { return quantile(0.5); }
    double percentile99() const { return quantile(0.99); }
    double maximum() const { return static_cast<double>(m_maximum) * 1e-9; }

private:
    static constexpr unsigned kBinsPerOctave = 64;
    static std::size_t binOf(std::uint64_t nanoseconds);
    static double middleOf(std::size_t bin);

    std::array<std::uint64_t, 60 * kBinsPerOctave> m_bins{};
    std::uint64_t m_count = 0;
    std::uint64_t m_maximum = 0;
};

} // namespace krv
