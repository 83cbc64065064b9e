// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cstddef>

/// Dot products over a ring of past samples, as the filters of the multi-rate stage need them.
///
/// A ring of L samples (L a multiple of 4, 16-byte aligned) is written at falling positions, so that the
/// sample at position i + 1 is one older than the one at i. The taps h of one phase, padded to L, come as
/// four banks of 2L floats, 16-byte aligned: bank r is h rotated right by r places, twice in a row. The dot
/// product at position i is
///
///   sum over m = 0 .. L-1 of  banks[i & 3][(L - (i & ~3)) % L + m] * samples[m]
///
/// which is the sum of h[(m - i) mod L] * samples[m], with both operands read from aligned addresses.
///
/// Order of summation, fixed to the bit: groups of four floats go lane by lane into four accumulators of four
/// lanes that start at zero. The first 16 * (L / 16) products rotate through a0, a1, a2, a3, the groups that
/// remain all go to a0. The result is ((s0 + s1) + s2) + s3 with s = (a0 + a1) + (a2 + a3). Products and sums
/// are rounded apart.
namespace korvodsp {

struct SRing
{
    float* samples;  ///< `length` floats
    unsigned length; ///< L
    int index;       ///< position where the next sample goes, L - 1 down to 0
};

/// One column of an interleaved block: element i is at samples[i * stride].
struct SColumn
{
    float* samples;
    unsigned stride;
};
struct SConstColumn
{
    const float* samples;
    unsigned stride;
};

/// The passes below read the taps of 16 outputs at a time, at a step of one tap or of `ratio` taps. So behind
/// its two periods, the first bank of each phase goes on with
///
///   the begin of a period once more, kRingRow floats;
///   each ratio-th tap, two periods and kRingRow floats more, once for each tap to start from.
constexpr std::size_t kRingRow = 16;

constexpr std::size_t spacedTapsStart(std::size_t length)
{
    return 2 * length + kRingRow;
}

/// Of each of the `ratio` tables.
constexpr std::size_t spacedTapsSize(std::size_t length, std::size_t ratio)
{
    return 2 * length / ratio + kRingRow;
}

constexpr std::size_t firstBankSize(std::size_t length, std::size_t ratio)
{
    return spacedTapsStart(length) + ratio * spacedTapsSize(length, ratio);
}

/// Fills a first bank, of firstBankSize() floats, behind its two periods.
void completeFirstBank(float* bank, std::size_t length, std::size_t ratio);

/// sum over m of bank[m] * samples[m], for a `bank` that is offset already. Both 16-byte aligned.
float ringDot(const float* bank, const float* samples, unsigned length);

/// For each frame: write in[i] at the index, out[i] = dot product * scale, step the index down with wrap.
/// `in` and `out` may be the same column. The function may read no further than `frames` elements; 0 frames
/// do nothing.
void ringFilter(SRing& ring, const float* const banks[4], SConstColumn in, SColumn out, unsigned frames,
                float scale);

/// For each frame: write in[i] at the index; at every ratio-th frame, counted from the start of the call, the
/// next element of `out` = dot product; step the index down with wrap. Gives frames / ratio elements, rounded
/// down. `in` and `out` must not overlap.
void ringDecimate(SRing& ring, const float* const banks[4], unsigned ratio, SConstColumn in, SColumn out,
                  unsigned frames);

/// For each frame f: if f is a multiple of `ratio`, write the next element of `in` at the index and step the
/// index down with wrap, before anything else; out[f] = dot product with the four banks of phase f % ratio *
/// scale. Reads frames / ratio elements, rounded up. `in` and `out` must not overlap.
/// @param banks  4 * ratio banks, those of phase p from 4 * p on
void ringInterpolate(SRing& ring, const float* const* banks, unsigned ratio, SConstColumn in, SColumn out,
                     unsigned frames, float scale);

} // namespace korvodsp
