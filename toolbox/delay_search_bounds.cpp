// SPDX-License-Identifier: GPL-3.0-or-later
#include "toolbox/delay_search_bounds.h"

#include <emmintrin.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <limits>
#include <numbers>

namespace korvotoolbox {

namespace {

/// Beyond this the bounds cost about what they save.
constexpr std::size_t kLongest = 4096;

using PerPosition = std::array<double, kMaxPositions>;

double binsOf(SBand band)
{
    return band.high - band.low + 1;
}

double energyOf(const fftwf_complex* bins, SBand band)
{
    const float* const values = bins[band.low];
    const int count = 2 * (band.high - band.low + 1);
    __m128d sums = _mm_setzero_pd();
    for (int i = 0; i < count; i += 2)
    {
        const __m128d bin = _mm_set_pd(static_cast<double>(values[i + 1]), static_cast<double>(values[i]));
        sums = _mm_add_pd(sums, _mm_mul_pd(bin, bin));
    }
    return _mm_cvtsd_f64(_mm_add_pd(sums, _mm_unpackhi_pd(sums, sums)));
}

std::complex<double> turn(double steps)
{
    return std::polar(1.0, std::numbers::pi * steps / kFftSize);
}

/// The band-pass's impulse response, sum over its bins k of cos(2 pi k m / 65536), for one m after the other.
class CBandPass
{
public:
    explicit CBandPass(SBand band)
        : m_value(binsOf(band)), m_turns{turn(2.0 * band.high + 1.0), turn(2.0 * band.low - 1.0), turn(1.0)}
    {
    }

    double value() const { return m_value; }

    void next()
    {
        for (std::size_t i = 0; i < m_phases.size(); ++i)
        {
            const double re = m_phases[i].real(), im = m_phases[i].imag();
            const double turnRe = m_turns[i].real(), turnIm = m_turns[i].imag();
            m_phases[i] = {re * turnRe - im * turnIm, re * turnIm + im * turnRe};
        }
        m_value = (m_phases[0].imag() - m_phases[1].imag()) / (2.0 * m_phases[2].imag());
    }

private:
    double m_value;
    std::array<std::complex<double>, 3> m_turns;
    std::array<std::complex<double>, 3> m_phases{1.0, 1.0, 1.0};
};

/// c(i), from the last position to the first: the response is symmetric, and so runs along with the filter.
PerPosition bandPassed(const SDelaySearch& search)
{
    const auto last = static_cast<std::size_t>(search.last);
    const auto length = static_cast<std::size_t>(search.usedLength);
    std::array<double, kLongest + kMaxPositions> response;
    const std::size_t size = length + kMaxPositions - 1;
    CBandPass bandPass(search.wide);
    for (std::size_t m = 0; m <= std::max(last, size - 1); ++m, bandPass.next())
    {
        if (m <= last)
            response[last - m] = bandPass.value();
        if (last + m < size)
            response[last + m] = bandPass.value();
    }
    PerPosition sums{};
    for (std::size_t n = 0; n < length; ++n)
        for (std::size_t i = 0; i < sums.size(); ++i)
            sums[i] += static_cast<double>(search.samples[n]) * response[n + i];
    return sums;
}

} // namespace

PerPosition scoreBounds(const SDelaySearch& search)
{
    PerPosition bounds;
    bounds.fill(std::numeric_limits<double>::infinity());
    if (search.usedLength > static_cast<int>(kLongest) || search.last >= static_cast<int>(kLongest))
        return bounds;
    const double bins = binsOf(search.wide);
    const double gain = search.gain;
    const double filterAndImpulse = energyOf(search.bins, search.wide) + bins * gain * gain;
    const PerPosition c = bandPassed(search);
    for (int i = search.first; i <= search.last; ++i)
    {
        const double together = 2.0 * gain * std::abs(c[static_cast<std::size_t>(search.last - i)]);
        bounds[static_cast<std::size_t>(i - search.first)] = std::sqrt(bins * (filterAndImpulse + together));
    }
    return bounds;
}

} // namespace korvotoolbox
