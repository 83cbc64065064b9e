// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>

namespace korvodsp {

/// The raised-cosine fade window s(k) = 0.5 * cos(k * pi / frames), k = 0 .. frames - 1, one value per
/// next(). A two-term recurrence in single precision, s(k+1) = s(k) * c - s(k-1): one cosine per fade and
/// none per sample. Every fade of the library runs through this class, so that all of them agree to the bit.
/// Without frames there is no window, and next() is not to be called.
class CRaisedCosine
{
public:
    explicit CRaisedCosine(std::uint32_t frames) noexcept
    {
        // The step is a single-precision angle; only the cosine and its doubling are double.
        const float step = kPi / static_cast<float>(frames > 0 ? frames : 1);
        m_factor = static_cast<float>(2.0 * std::cos(static_cast<double>(step)));
        m_before = m_factor * 0.5F * 0.5F;
    }

    float next() noexcept
    {
        const float now = m_now;
        m_now = now * m_factor - m_before;
        m_before = now;
        return now;
    }

private:
    static constexpr float kPi = 0x1.921fb6p+1F; ///< 3.1415927, bits 0x40490FDB

    float m_factor;
    float m_before;
    float m_now = 0.5F;
};

/// out(k) = (0.5 - s(k)) * to(k) + (s(k) + 0.5) * from(k), over `frames` samples that lie `stride` apart.
/// Starts at `from` in full and ends one step short of `to`. `out` may be `from` or `to`, and nothing
/// between.
inline void fadeColumn(const float* from, const float* to, float* out, std::uint32_t frames,
                       std::size_t stride) noexcept
{
    CRaisedCosine window(frames);
    for (std::size_t k = 0, i = 0; k < frames; ++k, i += stride)
    {
        const float s = window.next();
        out[i] = (0.5F - s) * to[i] + (s + 0.5F) * from[i];
    }
}

} // namespace korvodsp
