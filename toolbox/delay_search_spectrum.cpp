// SPDX-License-Identifier: GPL-3.0-or-later
#include <emmintrin.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <cstddef>
#include <cstdint>
#include <numbers>
#include <numeric>

#include "toolbox/delay_search_bounds.h"

namespace korvotoolbox {

namespace {

constexpr int kLanes = 4; // positions side by side, the floats of a register
constexpr int kBlockBins = 64;

/// Scores this close to the best, relative to it, are left to the transforms. Both ways add magnitudes in
/// single precision and in the same order, and so agree to about a millionth; the worst that rounding can do
/// to a sum of 7640, the usual number, is half of this.
constexpr float kTooClose = 1e-3F;

/// A transform's rounding grows with the whole filter, the score's differences with the impulse.
constexpr double kMaxFilterOverImpulse = 256.0;

/// Below this the squares of magnitudes run into denormals.
constexpr float kLeastGain = 1e-15F;

using Group = std::array<std::size_t, kLanes>; // of positions, counted from `first`

struct SLanes
{
    alignas(16) std::array<float, kLanes> re{};
    alignas(16) std::array<float, kLanes> im{};

    void set(std::size_t lane, std::complex<double> value)
    {
        re[lane] = static_cast<float>(value.real());
        im[lane] = static_cast<float>(value.imag());
    }
};

struct SGroupScores
{
    alignas(16) std::array<float, kLanes> plus{};
    alignas(16) std::array<float, kLanes> minus{};
};

/// The impulses' phasors. Each bin's is the product of one at the start of its block and one within the
/// block, so no error builds up along the band.
class CPhasors
{
public:
    CPhasors(const SDelaySearch& search, const Group& group)
    {
        for (std::size_t lane = 0; lane < kLanes; ++lane)
        {
            const std::int64_t position = search.first + static_cast<std::int64_t>(group[lane]);
            const std::complex<double> turn = unit(position);
            std::complex<double> within = static_cast<double>(search.gain);
            for (SLanes& step : m_within)
            {
                step.set(lane, within);
                within *= turn;
            }
            m_blockTurn[lane] = unit(position * kBlockBins);
            m_start[lane] = unit(position * search.wide.low);
        }
    }

    /// Phasors at the start of the present block.
    SLanes start() const
    {
        SLanes lanes;
        for (std::size_t lane = 0; lane < kLanes; ++lane)
            lanes.set(lane, m_start[lane]);
        return lanes;
    }

    /// From there to bin `bin` of the block, times the gain.
    const SLanes& within(int bin) const { return m_within[static_cast<std::size_t>(bin)]; }

    void nextBlock()
    {
        for (std::size_t lane = 0; lane < kLanes; ++lane)
            m_start[lane] *= m_blockTurn[lane];
    }

private:
    static std::complex<double> unit(std::int64_t steps)
    {
        return std::polar(1.0, -2.0 * std::numbers::pi * static_cast<double>(steps % kFftSize) / kFftSize);
    }

    std::array<SLanes, kBlockBins> m_within;
    std::array<std::complex<double>, kLanes> m_blockTurn;
    std::array<std::complex<double>, kLanes> m_start;
};

__m128 magnitude(__m128 re, __m128 im)
{
    return _mm_sqrt_ps(_mm_add_ps(_mm_mul_ps(re, re), _mm_mul_ps(im, im)));
}

/// Adds `count` bins to the scores. |S + P| and |S - P| are formed from the sums themselves: out of
/// |S|^2 + |P|^2 +- 2 Re(S conj P) they would lose their digits where filter and impulse cancel.
void addBlock(const fftwf_complex* bins, int count, const CPhasors& phasors, SGroupScores& scores)
{
    const SLanes start = phasors.start();
    const __m128 startRe = _mm_load_ps(start.re.data());
    const __m128 startIm = _mm_load_ps(start.im.data());
    __m128 plus = _mm_load_ps(scores.plus.data());
    __m128 minus = _mm_load_ps(scores.minus.data());
    for (int bin = 0; bin < count; ++bin)
    {
        const SLanes& within = phasors.within(bin);
        const __m128 withinRe = _mm_load_ps(within.re.data());
        const __m128 withinIm = _mm_load_ps(within.im.data());
        const __m128 re = _mm_sub_ps(_mm_mul_ps(startRe, withinRe), _mm_mul_ps(startIm, withinIm));
        const __m128 im = _mm_add_ps(_mm_mul_ps(startRe, withinIm), _mm_mul_ps(startIm, withinRe));
        const __m128 filterRe = _mm_set1_ps(bins[bin][0]);
        const __m128 filterIm = _mm_set1_ps(bins[bin][1]);
        plus = _mm_add_ps(plus, magnitude(_mm_add_ps(filterRe, re), _mm_add_ps(filterIm, im)));
        minus = _mm_add_ps(minus, magnitude(_mm_sub_ps(filterRe, re), _mm_sub_ps(filterIm, im)));
    }
    _mm_store_ps(scores.plus.data(), plus);
    _mm_store_ps(scores.minus.data(), minus);
}

SGroupScores scoreOf(const SDelaySearch& search, const Group& group)
{
    SGroupScores scores;
    CPhasors phasors(search, group);
    for (int bin = search.wide.low; bin <= search.wide.high; bin += kBlockBins)
    {
        addBlock(search.bins + bin, std::min(kBlockBins, search.wide.high - bin + 1), phasors, scores);
        phasors.nextBlock();
    }
    return scores;
}

/// Written so that NaN is not well above anything.
bool impulseIsWellAboveRounding(const SDelaySearch& search)
{
    double energy = 0.0;
    for (int i = 0; i < search.usedLength; ++i)
        energy += static_cast<double>(search.samples[i]) * static_cast<double>(search.samples[i]);
    const double gain = search.gain;
    return search.gain >= kLeastGain && std::sqrt(energy) <= kMaxFilterOverImpulse * gain;
}

/// Beyond doubt; NaN and infinity are doubtful.
bool isBelow(double score, float best)
{
    return static_cast<double>(best) - score > static_cast<double>(kTooClose * best);
}

struct SScores
{
    std::array<float, kMaxPositions> plus{};
    std::array<float, kMaxPositions> minus{};
};

/// The scores of all positions but those that cannot come near the best, which stay 0.
SScores scoreCandidates(const SDelaySearch& search)
{
    const std::array<double, kMaxPositions> bounds = scoreBounds(search);
    std::array<std::size_t, kMaxPositions> order;
    std::iota(order.begin(), order.end(), std::size_t{0});
    const auto orderEnd = order.begin() + (search.last - search.first + 1);
    std::sort(order.begin(), orderEnd, [&](std::size_t a, std::size_t b) { return bounds[a] > bounds[b]; });

    SScores scores;
    float best = 0.0F;
    for (auto next = order.begin(); next < orderEnd;
         next += std::min<std::ptrdiff_t>(kLanes, orderEnd - next))
    {
        // The transforms can round a score up to above its bound, by half of what is too close.
        if (isBelow(bounds[*next] * (1.0 + 0.5 * static_cast<double>(kTooClose)), best))
            break;
        Group group;
        for (std::ptrdiff_t lane = 0; lane < kLanes; ++lane)
            group[static_cast<std::size_t>(lane)] = next[std::min(lane, orderEnd - next - 1)];
        const SGroupScores found = scoreOf(search, group);
        for (std::size_t lane = 0; lane < kLanes; ++lane)
        {
            scores.plus[group[lane]] = found.plus[lane];
            scores.minus[group[lane]] = found.minus[lane];
            best = std::max({best, found.plus[lane], found.minus[lane]});
        }
    }
    return scores;
}

} // namespace

SSpectrumResult searchBySpectrum(const SDelaySearch& search)
{
    if (!impulseIsWellAboveRounding(search))
        return {std::nullopt, Positions().set()};
    const SScores scores = scoreCandidates(search);

    SAlignment best{search.peak, 0};
    float bestScore = 0.0F;
    for (int i = search.first; i <= search.last; ++i)
    {
        const auto lane = static_cast<std::size_t>(i - search.first);
        if (scores.plus[lane] > bestScore)
        {
            best = {i, +1};
            bestScore = scores.plus[lane];
        }
        if (scores.minus[lane] > bestScore)
        {
            best = {i, -1};
            bestScore = scores.minus[lane];
        }
    }

    Positions contenders;
    int contendingScores = 0;
    for (int i = search.first; i <= search.last; ++i)
    {
        const auto lane = static_cast<std::size_t>(i - search.first);
        const int close =
            int{!isBelow(scores.plus[lane], bestScore)} + int{!isBelow(scores.minus[lane], bestScore)};
        contenders.set(lane, close > 0);
        contendingScores += close;
    }
    if (contendingScores == 1)
        return {best, contenders};
    return {std::nullopt, contenders};
}

} // namespace korvotoolbox
